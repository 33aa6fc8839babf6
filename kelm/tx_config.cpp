// SPDX-License-Identifier: GPL-2.0
//
// A replaced packet keeps its record, timer, references, sequence number, pending latch and, unless
// the period changes, its statistics; only the settings and the bytes change.
#include "kelm/tx_config.h"

#include <cstring>

#include "kelm/guard.h"
#include "kelm/kelm_bfd_common_utils.h"
#include "kelm/log.h"
#include "kelm/message.h"
#include "kelm/tx_schedule.h"
#include "kelm/tx_table.h"
#include "kelm/tx_transmit.h"
#include "platform/err.h"

namespace
{
// Checks the BFD control packet and its authentication section: that the packet ends where they
// do, and that flag, type and length of the section go together.
int check_auth(const kelm_msg_tx_set_packet &msg, const packet_layout &layout)
{
    const std::uint32_t disc = msg.header.discriminator;
    const std::uint8_t type = msg.auth.type;
    const auto auth_len = static_cast<std::uint8_t>(kelm_auth_header_len_hdr(type, &msg.auth_hdr));
    const bool auth_present =
        layout.bfd_header_fits() && (msg.packet[msg.latch_offset + 1] & BFD_FLAG_AUTH_PRESENT) != 0;
    if (auth_present && auth_len <= BFD_AUTH_COMMON_LEN) {
        tx_log(disc, 2, "auth_header_len %u less than bfd_auth_password len %lu", auth_len,
               static_cast<unsigned long>(BFD_AUTH_COMMON_LEN));
        return -EINVAL;
    }
    // In 64 bits, where no offset wraps around.
    const std::uint64_t expected_len = std::uint64_t{msg.latch_offset} + auth_len + BFD_CTRL_LEN;
    if (msg.packet_len != expected_len) {
        tx_log(disc, 2, "Packet size incorrect for auth type %d. %u vs %u. Disc %d", type,
               msg.packet_len, static_cast<std::uint32_t>(expected_len), static_cast<int>(disc));
        return -EINVAL;
    }
    if (auth_present && !kelm_is_simple_auth(type) && !kelm_auth_has_seq_num(type)) {
        tx_log(disc, 2, "Auth bit and type don't match. auth_present is %d", 1);
        return -EINVAL;
    }
    return 0;
}

// Checks what the agent says of its packet, before anything is locked or changed.
int check_packet(const kelm_msg_tx_set_packet &msg)
{
    if (msg.header.discriminator == 0)
        return -EINVAL;
    if (msg.type >= KELM_TX_SESSION_MAX)
        return -EAFNOSUPPORT;
    const packet_layout layout = {msg.packet, msg.packet_len, msg.ip_hdr_offset, msg.latch_offset};
    const int err = check_auth(msg, layout);
    if (err != 0)
        return err;
    if (msg.period == 0) {
        KELM_LOG("Tx", 1, "Zero period is no longer supported (%u)", msg.header.discriminator);
        return -EINVAL;
    }
    return layout.fits(msg.type) ? 0 : -EINVAL;
}

void copy_settings(tx_packet *packet, const kelm_msg_tx_set_packet &msg)
{
    packet->ifindex = msg.ifindex;
    packet->period = msg.period;
    packet->send_oob_packet = (msg.flags & KELM_TX_SEND_OOB) != 0;
    packet->mydisc_rtt = (msg.flags & KELM_TX_MYDISC_RTT) != 0;
    packet->ip_hdr_offset = msg.ip_hdr_offset;
    packet->latch_offset = msg.latch_offset;
    packet->latch_period = msg.latch_period;
    packet->latch_state = msg.latch_state;
    packet->jitter_type = msg.jitter_type;
    if (packet->auth.type != msg.auth.type)
        tx_log(packet->discriminator, 2, "Changing auth type from %d to %d", packet->auth.type,
               msg.auth.type);
    packet->auth = msg.auth;
    packet->auth_hdr = msg.auth_hdr;
}

int change_type(tx_packet *packet, std::uint32_t type)
{
    if (packet->type == type)
        return 0;
    tx_log(packet->discriminator, 2, "Changing type from %d to %d", static_cast<int>(packet->type),
           static_cast<int>(type));
    packet->sk = packet->vrf->tx_sockets[type];
    packet->type = type;
    return packet->sk != nullptr ? 0 : -ESHUTDOWN;
}

int copy_packet(tx_packet *packet, const kelm_msg_tx_set_packet &msg)
{
    if (!store(packet->packet, packet->room, msg.packet, msg.packet_len)) {
        tx_log(packet->discriminator, 2, "Failed to allocate packet data");
        return -ENOMEM;
    }
    tx_log(packet->discriminator, 2, "Copying packet data of %d byte",
           static_cast<int>(msg.packet_len));
    return 0;
}

// What fails here leaves the settings that were already copied in place.
int configure(tx_packet *packet, const kelm_msg_tx_set_packet &msg)
{
    const kelm_microsecs old_period = packet->period;
    copy_settings(packet, msg);
    int err = change_type(packet, msg.type);
    if (err != 0)
        return err;
    if (packet->period != old_period)
        packet->stats.restart();
    err = copy_packet(packet, msg);
    if (err != 0)
        return err;
    update_udp_checksum(packet, false);
    if (kelm_tx_path_ready)
        static_cast<void>(schedule_packet(packet, false));
    return 0;
}

int set_packet(kelm_vrf *vrf, const kelm_msg_tx_set_packet &msg)
{
    const std::uint32_t disc = msg.header.discriminator;
    vrf->packets.make_room(tx_lock);
    bh_guard table(tx_lock);
    tx_log(disc, 2, "Got packets lock");
    tx_packet *packet = vrf->packets.find(disc);
    if (packet == nullptr) {
        tx_log(disc, 2, "Allocating new packet");
        packet = __create_packet(vrf, disc);
        if (packet == nullptr)
            return -ENOMEM;
    }
    bh_guard lock(packet->lock);
    tx_log(disc, 2, "Got packet lock");
    return configure(packet, msg);
}
} // namespace

int kelm_tx_set_packet(kelm_vrf *vrf, sk_buff *, const nlmsghdr *hdr)
{
    const auto *msg = request_body<kelm_msg_tx_set_packet>(hdr);
    if (msg == nullptr || !request_has_tail<kelm_msg_tx_set_packet>(hdr, msg->packet_len))
        return -EINVAL;
    const std::uint32_t disc = msg->header.discriminator;
    tx_log(disc, 2, "Processing TX_SET_PACKET for session %u vrf %p", disc,
           static_cast<void *>(vrf));
    int result = check_packet(*msg);
    if (result != 0)
        return result;
    result = set_packet(vrf, *msg);
    tx_log(disc, 2, "Returning %d", result);
    return result;
}

int kelm_tx_delete_packet(kelm_vrf *vrf, sk_buff *, const nlmsghdr *hdr)
{
    const auto *msg = request_body<kelm_msg_tx_delete_packet>(hdr);
    if (msg == nullptr)
        return -EINVAL;
    const std::uint32_t disc = msg->header.discriminator;
    tx_log(disc, 2, "Processing TX_DELETE_PACKET for session %u vrf %p", disc,
           static_cast<void *>(vrf));
    if (disc == 0)
        return -EINVAL;
    bh_guard table(tx_lock);
    tx_packet *packet = vrf->packets.find(disc);
    if (packet == nullptr)
        return -ENOENT;
    {
        bh_guard lock(packet->lock);
        packet->dead = true;
    }
    tx_log(disc, 3, "Unlinking tx %u on delete", disc);
    vrf->packets.remove(*packet);
    __put_packet(packet, false);
    return 0;
}
