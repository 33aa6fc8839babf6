// SPDX-License-Identifier: GPL-2.0
//
// Handing a packet to its socket: the destination address, control data and flags of each type.
#include <cstring>

#include "kelm/ip_addresses.h"
#include "kelm/socket_abi.h"
#include "kelm/tx_internal.h"
#include "platform/err.h"
#include "platform/socket.h"

namespace
{
// Traffic this frequent proves that the neighbour is there.
constexpr kelm_microsecs MAX_CONFIRM_PERIOD = 999'999;

int send(const tx_packet *packet, const kernel_msghdr &msg)
{
    const kvec vec = {packet->packet, packet->packet_len};
    return kernel_sendmsg(packet->sk, &msg, &vec, 1, packet->packet_len);
}

sockaddr_inet6 destination_of(const ip_addresses &ip)
{
    sockaddr_inet6 address = {};
    address.family = AF_INET6;
    if (ip.v4) { // IPv4-mapped: ::ffff:a.b.c.d
        address.addr[10] = 0xFF;
        address.addr[11] = 0xFF;
    }
    std::memcpy(address.addr + (IPV6_ADDR_LEN - ip.addr_len()), ip.destination, ip.addr_len());
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
        info->v4.header = {IPV4_PKTINFO_LEN, SOL_IP, IP_PKTINFO};
        info->v4.ifindex = ifindex;
        std::memcpy(info->v4.spec_dst, ip.source, IPV4_ADDR_LEN);
        return IPV4_PKTINFO_LEN;
    }
    info->v6.header = {IPV6_PKTINFO_LEN, SOL_IPV6, IPV6_PKTINFO};
    std::memcpy(info->v6.addr, ip.source, IPV6_ADDR_LEN);
    info->v6.ifindex = ifindex;
    return IPV6_PKTINFO_LEN;
}

int send_ip(const tx_packet *packet)
{
    const ip_addresses ip(packet->packet);
    const sockaddr_inet6 address = destination_of(ip);
    kernel_msghdr msg = {&address, sizeof(address), MSG_DONTWAIT, nullptr, 0};
    pktinfo info;
    std::memset(&info, 0, sizeof(info));
    if (packet->ifindex != 0 || !ip.source_unspecified()) {
        msg.msg_controllen = fill_pktinfo(&info, ip, packet->ifindex);
        msg.msg_control = &info;
    }
    if (packet->period <= MAX_CONFIRM_PERIOD)
        msg.msg_flags |= MSG_CONFIRM;
    return send(packet, msg);
}

int send_frame(const tx_packet *packet)
{
    sockaddr_link address = {};
    address.family = AF_PACKET;
    address.ifindex = static_cast<std::int32_t>(packet->ifindex);
    address.halen = 6;
    std::memcpy(address.addr, packet->packet, 6); // Ethernet destination
    return send(packet, {&address, sizeof(address), MSG_DONTWAIT, nullptr, 0});
}
} // namespace

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
