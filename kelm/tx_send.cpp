// SPDX-License-Identifier: GPL-2.0
//
// Handing a packet to its socket: the destination address, control data and flags of each type,
// in the layouts of the Linux socket interface, and the UDP checksum.
#include "kelm/byte_order.h"
#include "kelm/tx_internal.h"
#include "platform/checksum.h"
#include "platform/err.h"
#include "platform/socket.h"

#include <cstring>

namespace
{
constexpr std::uint16_t AF_INET6 = 10;
constexpr std::uint16_t AF_PACKET = 17;
constexpr std::uint32_t MSG_DONTWAIT = 0x40;
constexpr std::uint32_t MSG_CONFIRM = 0x800;
constexpr int SOL_IP = 0;
constexpr int IP_PKTINFO = 8;
constexpr int SOL_IPV6 = 41;
constexpr int IPV6_PKTINFO = 50;

constexpr std::uint8_t IPPROTO_UDP = 17;
constexpr std::size_t UDP_CHECK_OFFSET = 6;
constexpr std::size_t IPV4_ADDR_LEN = 4;
constexpr std::size_t IPV6_ADDR_LEN = 16;

// Traffic this frequent proves that the neighbour is there.
constexpr kelm_microsecs MAX_CONFIRM_PERIOD = 999'999;

struct sockaddr_inet6 {
    std::uint16_t family;
    std::uint16_t port;
    std::uint32_t flowinfo;
    std::uint8_t addr[IPV6_ADDR_LEN];
    std::uint32_t scope_id;
};
static_assert(sizeof(sockaddr_inet6) == 28);

struct sockaddr_link {
    std::uint16_t family;
    std::uint16_t protocol;
    std::int32_t ifindex;
    std::uint16_t hatype;
    std::uint8_t pkttype;
    std::uint8_t halen;
    std::uint8_t addr[8];
};
static_assert(sizeof(sockaddr_link) == 20);

struct control_header {
    std::size_t len; // with this header
    std::int32_t level;
    std::int32_t type;
};

struct ipv4_pktinfo {
    control_header header;
    std::uint32_t ifindex;
    std::uint8_t spec_dst[IPV4_ADDR_LEN]; // local source
    std::uint8_t addr[IPV4_ADDR_LEN];
};
constexpr std::size_t IPV4_PKTINFO_LEN = sizeof(control_header) + 12;
static_assert(offsetof(ipv4_pktinfo, addr) + IPV4_ADDR_LEN == IPV4_PKTINFO_LEN);

struct ipv6_pktinfo {
    control_header header;
    std::uint8_t addr[IPV6_ADDR_LEN]; // local source
    std::uint32_t ifindex;
};
constexpr std::size_t IPV6_PKTINFO_LEN = sizeof(control_header) + 20;
static_assert(offsetof(ipv6_pktinfo, ifindex) + 4 == IPV6_PKTINFO_LEN);
static_assert(sizeof(ipv6_pktinfo) == 40);

// The addresses of an IP header; anything that is not version 4 is taken for version 6.
struct ip_addresses {
    bool v4;
    const std::uint8_t *source;
    const std::uint8_t *destination;

    explicit ip_addresses(const std::uint8_t *ip)
        : v4(ip[0] >> 4 == 4), source(ip + (v4 ? 12 : 8)), destination(ip + (v4 ? 16 : 24))
    {
    }
    [[nodiscard]] std::size_t addr_len() const { return v4 ? IPV4_ADDR_LEN : IPV6_ADDR_LEN; }
    [[nodiscard]] bool source_unspecified() const
    {
        static constexpr std::uint8_t unspecified[IPV6_ADDR_LEN] = {};
        return std::memcmp(source, unspecified, addr_len()) == 0;
    }
};

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
    return packet->type == KELM_TX_SESSION_IP ? send_ip(packet) : send_frame(packet);
}

void update_udp_checksum(tx_packet *packet, bool force)
{
    if ((packet->auth.type == BFD_AUTH_NONE && !force) || !packet->layout().udp_headers_fit())
        return;
    const auto udp_len =
        static_cast<std::uint32_t>(packet->packet_len - packet->latch_offset + UDP_HEADER_LEN);
    std::uint8_t *udp = packet->packet + packet->latch_offset - UDP_HEADER_LEN;
    store_host<std::uint16_t>(udp + UDP_CHECK_OFFSET, 0);
    const std::uint32_t sum = csum_partial(udp, static_cast<int>(udp_len), 0);
    const ip_addresses ip(packet->packet + packet->ip_hdr_offset);
    const std::uint16_t check =
        ip.v4
            ? csum_tcpudp_magic(load_host<std::uint32_t>(ip.source),
                                load_host<std::uint32_t>(ip.destination), udp_len, IPPROTO_UDP, sum)
            : csum_ipv6_magic(ip.source, ip.destination, udp_len, IPPROTO_UDP, sum);
    // 0 would say that there is no checksum (RFC 768).
    store_host<std::uint16_t>(udp + UDP_CHECK_OFFSET, check != 0 ? check : std::uint16_t{0xFFFF});
}
