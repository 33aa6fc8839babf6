// SPDX-License-Identifier: GPL-2.0
//
// The stored packet is edited in place, sent, and scheduled anew: by the packet's timer callback,
// and once for every packet when the transmit path becomes ready.
//
// A callback holds the reference of the timer that fired. It ends in one of three ways: the
// re-armed timer takes the reference over; or somebody else has armed the timer with a reference
// of its own meanwhile, or the packet is not scheduled again, and the reference is dropped.
#include "kelm/tx_transmit.h"

#include <cstring>

#include "kelm/byte_order.h"
#include "kelm/clocks.h"
#include "kelm/guard.h"
#include "kelm/ip_addresses.h"
#include "kelm/kelm_bfd_common_utils.h"
#include "kelm/log.h"
#include "kelm/socket_abi.h"
#include "kelm/tx_schedule.h"
#include "kelm/tx_table.h"
#include "platform/checksum.h"
#include "platform/err.h"
#include "platform/socket.h"

namespace
{
constexpr std::size_t min_packet_len = 20;
constexpr std::uint8_t ipproto_udp = 17;
constexpr std::size_t udp_check_offset = 6;

// Traffic this frequent proves that the neighbour is there.
constexpr kelm_microsecs max_confirm_period = 999'999;

constinit relaxed<bool> logged_extra_reference(false);
constinit relaxed<bool> logged_no_release(false);

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
    ++packet->stats.counters.num_latches;
    if (!packet->layout().bfd_header_fits()) {
        ++packet->stats.counters.num_latch_errors;
        tx_log(disc, 2, "Packet too short to modify (disc %u len %zu < %lu)", disc,
               packet->packet.len, std::size_t{packet->latch_offset} + BFD_CTRL_LEN);
        return EINVAL;
    }
    std::uint8_t *bfd = packet->packet.data + packet->latch_offset;
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
        std::uint8_t *bfd = packet->packet.data + packet->latch_offset;
        stamp_rtt(packet, bfd);
        clear_final_bit(packet, bfd);
    }
    const int err = apply_latch(packet);
    // Last, so that the digest covers what was changed.
    if (err == 0)
        kelm_auth_process(packet->packet.data, packet->packet.len, packet->latch_offset,
                          static_cast<kelm_tx_session_types>(packet->type), packet->auth.type,
                          &packet->seq_num, &packet->auth_hdr, r_trace);
    return err;
}

int send(const tx_packet *packet, const kernel_msghdr &msg)
{
    const kvec vec = {packet->packet.data, packet->packet.len};
    return kernel_sendmsg(packet->sk, &msg, &vec, 1, packet->packet.len);
}

sockaddr_inet6 destination_of(const ip_addresses &ip)
{
    sockaddr_inet6 address = {};
    address.family = AF_INET6;
    if (ip.v4) { // IPv4-mapped: ::ffff:a.b.c.d
        address.addr[10] = 0xFF;
        address.addr[11] = 0xFF;
    }
    std::memcpy(address.addr + (ipv6_addr_len - ip.addr_len()), ip.destination, ip.addr_len());
    return address;
}

// Control data that names the interface and the local source; the layout is the IP version's.
union pktinfo {
    ipv4_pktinfo v4;
    ipv6_pktinfo v6;
};

std::size_t fill_pktinfo(pktinfo *info, const ip_addresses &ip, std::uint32_t ifindex)
{
    if (ip.v4) {
        info->v4.header = {ipv4_pktinfo_len, SOL_IP, IP_PKTINFO};
        info->v4.ifindex = ifindex;
        std::memcpy(info->v4.spec_dst, ip.source, ipv4_addr_len);
        return ipv4_pktinfo_len;
    }
    info->v6.header = {ipv6_pktinfo_len, SOL_IPV6, IPV6_PKTINFO};
    std::memcpy(info->v6.addr, ip.source, ipv6_addr_len);
    info->v6.ifindex = ifindex;
    return ipv6_pktinfo_len;
}

int send_ip(const tx_packet *packet)
{
    const ip_addresses ip(packet->packet.data);
    const sockaddr_inet6 address = destination_of(ip);
    kernel_msghdr msg = {&address, sizeof(address), MSG_DONTWAIT, nullptr, 0};
    pktinfo info;
    std::memset(&info, 0, sizeof(info));
    if (packet->ifindex != 0 || !ip.source_unspecified()) {
        msg.msg_controllen = fill_pktinfo(&info, ip, packet->ifindex);
        msg.msg_control = &info;
    }
    if (packet->period <= max_confirm_period)
        msg.msg_flags |= MSG_CONFIRM;
    return send(packet, msg);
}

int send_frame(const tx_packet *packet)
{
    sockaddr_link address = {};
    address.family = AF_PACKET;
    address.ifindex = static_cast<std::int32_t>(packet->ifindex);
    address.halen = 6;
    std::memcpy(address.addr, packet->packet.data, 6); // Ethernet destination
    return send(packet, {&address, sizeof(address), MSG_DONTWAIT, nullptr, 0});
}

// The number of bytes sent or a negative error number; a packet without a socket, or without the
// headers that its settings name, is not sent.
int send_packet(const tx_packet *packet)
{
    // A vrf that was going down had no socket for the packet.
    if (packet->sk == nullptr)
        return -ESHUTDOWN;
    // A request that failed left the bytes of an earlier one beside its settings.
    if (!packet->layout().fits(packet->type))
        return -EINVAL;
    return packet->type == KELM_TX_SESSION_IP ? send_ip(packet) : send_frame(packet);
}

// Whether there is something to send.
bool can_send(tx_packet *packet)
{
    const std::uint32_t disc = packet->discriminator;
    if (packet->dead) {
        tx_log(disc, 3, "Reached dead tx %u", disc);
        return false;
    }
    if (packet->packet.data == nullptr) {
        tx_log(disc, 2, "No packet to send!");
        ++packet->stats.counters.num_empty_packets;
        return false;
    }
    if (packet->packet.len < min_packet_len) {
        tx_log(disc, 2, "Packet too short. %lu bytes", packet->packet.len);
        ++packet->stats.counters.num_short_packets;
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
    if (sent < 0 || static_cast<std::size_t>(sent) != packet->packet.len) {
        tx_log(packet->discriminator, 2, "Error Txing: %d", sent);
        ++packet->stats.counters.num_tx_errors;
    }
    if (!packet->send_oob_packet)
        record_transmission(packet);
    return true;
}

// Whether the caller is left with a reference that belongs to no timer.
bool transmit_and_schedule(tx_packet *packet, bool is_callback)
{
    if (!transmit(packet))
        return true;
    if (!schedule_packet(packet, is_callback))
        return false;
    if (!logged_extra_reference.exchange(true))
        printk(KERN_DEBUG "kelm:  tx_trigger releasing extra reference to packet %llx\n",
               reinterpret_cast<unsigned long long>(packet));
    return true;
}
} // namespace

void tx_trigger_init()
{
    logged_extra_reference = false;
    logged_no_release = false;
}

void tx_trigger_callback(timer_list *timer)
{
    tx_packet *packet = container_of(timer, &tx_packet::timer);
    prefetch(packet->discriminator, packet->type, packet->stats.last_event, packet->stats.snapshot,
             packet->room);
    tx_trigger(packet, true);
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
    } else if (!logged_no_release.exchange(true)) {
        printk(KERN_DEBUG "kelm: tx_trigger attempted release from callback");
    }
}

void kelm_tx_latch(tx_packet *packet, std::uint8_t diagnostic)
{
    tx_log(packet->discriminator, 2, "Latching packet %u with diag %u", packet->discriminator,
           diagnostic);
    packet->latch_diag = diagnostic;
}

// Over the IPv4 or IPv6 pseudo-header and what follows.
void update_udp_checksum(tx_packet *packet, bool force)
{
    if ((packet->auth.type == BFD_AUTH_NONE && !force) || !packet->layout().udp_headers_fit())
        return;
    const auto udp_len =
        static_cast<std::uint32_t>(packet->packet.len - packet->latch_offset + udp_header_len);
    std::uint8_t *udp = packet->packet.data + packet->latch_offset - udp_header_len;
    store_host<std::uint16_t>(udp + udp_check_offset, 0);
    const std::uint32_t sum = csum_partial(udp, static_cast<int>(udp_len), 0);
    const ip_addresses ip(packet->packet.data + packet->ip_hdr_offset);
    const std::uint16_t check =
        ip.v4
            ? csum_tcpudp_magic(load_host<std::uint32_t>(ip.source),
                                load_host<std::uint32_t>(ip.destination), udp_len, ipproto_udp, sum)
            : csum_ipv6_magic(ip.source, ip.destination, udp_len, ipproto_udp, sum);
    // 0 would say that there is no checksum (RFC 768).
    store_host<std::uint16_t>(udp + udp_check_offset, check != 0 ? check : std::uint16_t{0xFFFF});
}
