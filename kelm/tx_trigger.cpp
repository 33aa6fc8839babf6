// SPDX-License-Identifier: GPL-2.0
//
// One transmission: the stored packet is edited in place, sent, and scheduled anew. Runs as the
// packet's timer callback, and once for every packet when the transmit path becomes ready.
//
// A callback holds the reference of the timer that fired. It ends in one of three ways: the
// re-armed timer takes the reference over; or somebody else has armed the timer with a reference
// of its own meanwhile, or the packet is not scheduled again, and the reference is dropped.
#include "kelm/byte_order.h"
#include "kelm/guard.h"
#include "kelm/kelm_bfd_common_utils.h"
#include "kelm/tx_internal.h"
#include "platform/err.h"

namespace
{
constexpr std::size_t MIN_PACKET_LEN = 20;

constinit relaxed<bool> told_extra_reference(false);
constinit relaxed<bool> told_no_release(false);

void r_trace(kelm_trace_type type, std::uint32_t discriminator, const char *text)
{
    tx_log(discriminator, type == KELM_VLOG ? 3 : 2, "%s", text);
}

void stamp_rtt(tx_packet *packet, std::uint8_t *bfd)
{
    if (packet->mydisc_rtt)
        store_host<std::uint32_t>(bfd + offsetof(bfd_ctrl, my_discriminator), rtt_clock());
}

// Only an out-of-band packet answers a poll; what is sent periodically never carries a Final bit.
void clear_final_bit(const tx_packet *packet, std::uint8_t *bfd)
{
    if (packet->send_oob_packet || !(bfd[1] & BFD_FLAG_FINAL))
        return;
    tx_log(packet->discriminator, 3,
           "Next in-band packet after last OOB packet with final bit %u, clear final bit", 1U);
    bfd[1] = static_cast<std::uint8_t>(bfd[1] & ~BFD_FLAG_FINAL);
}

// Turns the packet into one that reports the failure, for good. 0, or EINVAL if the packet
// cannot hold it; the latch then stays pending.
int apply_latch(tx_packet *packet)
{
    const std::uint32_t disc = packet->discriminator;
    const auto diag = static_cast<std::uint32_t>(packet->latch_diag.load());
    if (diag == 0)
        return 0;
    tx_log(disc, 2, "Packet %u latched to diag %u", disc, diag);
    packet->period = packet->latch_period;
    ++packet->stats.num_latches;
    if (!packet->layout().bfd_header_fits()) {
        ++packet->stats.num_latch_errors;
        tx_log(disc, 2, "Packet too short to modify (disc %u len %zu < %lu)", disc,
               packet->packet_len, std::size_t{packet->latch_offset} + BFD_CTRL_LEN);
        return EINVAL;
    }
    std::uint8_t *bfd = packet->packet + packet->latch_offset;
    bfd[0] = static_cast<std::uint8_t>((bfd[0] & BFD_VERSION_MASK) | (diag & BFD_DIAG_MASK));
    bfd[1] = static_cast<std::uint8_t>((bfd[1] & ~BFD_STATE_MASK) |
                                       (packet->latch_state << BFD_STATE_SHIFT));
    store_be32(bfd + offsetof(bfd_ctrl, your_discriminator), 0);
    store_be32(bfd + offsetof(bfd_ctrl, min_tx_interval), packet->latch_period);
    packet->latch_diag = 0;
    return 0;
}

int update_packet(tx_packet *packet)
{
    if (packet->layout().bfd_header_fits()) {
        std::uint8_t *bfd = packet->packet + packet->latch_offset;
        stamp_rtt(packet, bfd);
        clear_final_bit(packet, bfd);
    }
    const int err = apply_latch(packet);
    // Last, so that the digest covers what was changed.
    if (err == 0)
        kelm_auth_process(packet->packet, packet->packet_len, packet->latch_offset,
                          static_cast<kelm_tx_session_types>(packet->type), packet->auth.type,
                          &packet->seq_num, &packet->auth_hdr, r_trace);
    return err;
}

// Whether there is something to send.
bool can_send(tx_packet *packet)
{
    const std::uint32_t disc = packet->discriminator;
    if (packet->dead) {
        tx_log(disc, 3, "Reached dead tx %u", disc);
        return false;
    }
    if (packet->packet == nullptr) {
        tx_log(disc, 2, "No packet to send!");
        ++packet->stats.num_empty_packets;
        return false;
    }
    if (packet->packet_len < MIN_PACKET_LEN) {
        tx_log(disc, 2, "Packet too short. %lu bytes", packet->packet_len);
        ++packet->stats.num_short_packets;
        return false;
    }
    return true;
}

// Edits and sends the packet; a send that fails is counted and otherwise like one that succeeds.
// False if the packet is not to be scheduled again.
bool transmit(tx_packet *packet)
{
    if (!can_send(packet))
        return false;
    const int err = update_packet(packet);
    update_udp_checksum(packet, true);
    if (err != 0)
        return false;
    if (packet->type >= KELM_TX_SESSION_MAX) {
        KELM_LOG("Tx", 1, "Packet %u has invalid type %d", packet->discriminator,
                 static_cast<int>(packet->type));
        return false;
    }
    const int sent = send_packet(packet);
    if (sent < 0 || static_cast<std::size_t>(sent) != packet->packet_len) {
        tx_log(packet->discriminator, 2, "Error Txing: %d", sent);
        ++packet->stats.num_tx_errors;
    }
    if (!packet->send_oob_packet)
        tx_record_stats(packet);
    return true;
}

// Whether the caller is left with a reference that belongs to no timer.
bool transmit_and_schedule(tx_packet *packet, bool is_callback)
{
    if (!transmit(packet))
        return true;
    if (!schedule_packet(packet, is_callback))
        return false;
    if (!told_extra_reference.exchange(true))
        printk(KERN_DEBUG "kelm:  tx_trigger releasing extra reference to packet %llx\n",
               reinterpret_cast<unsigned long long>(packet));
    return true;
}
} // namespace

void tx_trigger_init()
{
    told_extra_reference = false;
    told_no_release = false;
}

void tx_trigger_callback(timer_list *timer)
{
    tx_trigger(container_of(timer, &tx_packet::timer), true);
}

void tx_trigger(tx_packet *packet, bool is_callback)
{
    const std::uint32_t disc = packet->discriminator;
    tx_log(disc, 3, "Triggered Tx, kelm_tx_path_ready %u discriminator %u",
           unsigned{kelm_tx_path_ready}, disc);
    {
        bh_guard lock(packet->lock);
        if (packet->refcount < 1)
            WARN("Transmission of packet %p with refcount %d", static_cast<void *>(packet),
                 packet->refcount.load());
        if (!transmit_and_schedule(packet, is_callback))
            return;
    }
    if (is_callback) {
        tx_log(disc, 2, "Releasing %u on tx", disc);
        kelm_tx_put_packet(packet);
    } else if (!told_no_release.exchange(true)) {
        printk(KERN_DEBUG "kelm: tx_trigger attempted release from callback");
    }
}
