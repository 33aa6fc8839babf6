// SPDX-License-Identifier: GPL-2.0
#include "platform/hosted/udp_frame.h"

#include <arpa/inet.h>
#include <cstring>
#include <net/ethernet.h>
#include <netinet/ip.h>
#include <netinet/ip6.h>
#include <netinet/udp.h>

#include "platform/checksum.h"
#include "platform/hosted/skbuff.h"

namespace hosted
{

namespace
{

// The destination is an address of ours. The source is whatever the sender wrote: a mapped one may
// come over IPv6 too.
bool is_ipv4(const udp_arrival &arrival)
{
    return IN6_IS_ADDR_V4MAPPED(&arrival.destination);
}

std::uint32_t ipv4_of(const in6_addr &mapped)
{
    std::uint32_t address;
    std::memcpy(&address, mapped.s6_addr + 12, sizeof address);
    return address;
}

template<typename Header>
void store(std::uint8_t *to, const Header &header)
{
    std::memcpy(to, &header, sizeof header);
}

// The checksum over the header and what follows it, without the pseudo-header.
std::uint32_t write_udp_header(std::uint8_t *to, std::size_t udp_len, const udp_arrival &arrival)
{
    udphdr udp{};
    udp.source = htons(arrival.source_port);
    udp.dest = htons(arrival.destination_port);
    udp.len = htons(static_cast<std::uint16_t>(udp_len));
    store(to, udp);
    return csum_partial(to, static_cast<int>(udp_len), 0);
}

void write_udp_checksum(std::uint8_t *udp, std::uint16_t checksum)
{
    if (checksum == 0) // on the wire, 0 means that there is none
        checksum = 0xffff;
    std::memcpy(udp + offsetof(udphdr, check), &checksum, sizeof checksum);
}

void write_ipv4(std::uint8_t *udp, std::size_t udp_len, const udp_arrival &arrival)
{
    iphdr ip{};
    ip.version = 4;
    ip.ihl = sizeof ip / 4;
    ip.tos = arrival.tos;
    ip.tot_len = htons(static_cast<std::uint16_t>(sizeof ip + udp_len));
    ip.ttl = arrival.ttl;
    ip.protocol = IPPROTO_UDP;
    ip.saddr = ipv4_of(arrival.source);
    ip.daddr = ipv4_of(arrival.destination);
    const std::uint32_t header_sum = csum_partial(&ip, sizeof ip, 0);
    ip.check = csum_tcpudp_magic(0, 0, 0, 0, header_sum); // no pseudo-header: fold, complement
    store(udp - sizeof ip, ip);

    const std::uint32_t sum = write_udp_header(udp, udp_len, arrival);
    write_udp_checksum(udp,
                       csum_tcpudp_magic(ip.saddr, ip.daddr, static_cast<std::uint32_t>(udp_len),
                                         IPPROTO_UDP, sum));
}

void write_ipv6(std::uint8_t *udp, std::size_t udp_len, const udp_arrival &arrival)
{
    ip6_hdr ip{};
    ip.ip6_flow = htonl(6U << 28 | static_cast<std::uint32_t>(arrival.tos) << 20);
    ip.ip6_plen = htons(static_cast<std::uint16_t>(udp_len));
    ip.ip6_nxt = IPPROTO_UDP;
    ip.ip6_hlim = arrival.ttl;
    ip.ip6_src = arrival.source;
    ip.ip6_dst = arrival.destination;
    store(udp - sizeof ip, ip);

    const std::uint32_t sum = write_udp_header(udp, udp_len, arrival);
    write_udp_checksum(udp, csum_ipv6_magic(&ip.ip6_src, &ip.ip6_dst,
                                            static_cast<std::uint32_t>(udp_len), IPPROTO_UDP, sum));
}

} // namespace

std::size_t udp_header_room(const udp_arrival &arrival, std::size_t link_len)
{
    return link_len + (is_ipv4(arrival) ? sizeof(iphdr) : sizeof(ip6_hdr)) + sizeof(udphdr);
}

void write_udp_headers(std::span<std::uint8_t> payload, const udp_arrival &arrival,
                       std::size_t link_len)
{
    const std::size_t room = udp_header_room(arrival, link_len);
    std::uint8_t *link = payload.data() - room;
    const std::uint16_t ethertype = htons(is_ipv4(arrival) ? ETHERTYPE_IP : ETHERTYPE_IPV6);
    std::memset(link, 0, link_len);
    if (link_len >= sizeof ethertype)
        std::memcpy(link + link_len - sizeof ethertype, &ethertype, sizeof ethertype);

    std::uint8_t *udp = payload.data() - sizeof(udphdr);
    const std::size_t udp_len = sizeof(udphdr) + payload.size();
    if (is_ipv4(arrival))
        write_ipv4(udp, udp_len, arrival);
    else
        write_ipv6(udp, udp_len, arrival);
}

sk_buff *udp_frame_skb(std::span<const std::uint8_t> payload, const udp_arrival &arrival,
                       std::size_t link_len)
{
    const auto headers = static_cast<unsigned int>(udp_header_room(arrival, link_len));
    sk_buff *skb = skb_copy_bytes(payload, headers, GFP_ATOMIC);
    if (skb == nullptr)
        return nullptr;
    write_udp_headers({skb_data(skb), skb_len(skb)}, arrival, link_len);
    skb->mac_header = 0;
    skb->network_header = static_cast<unsigned int>(link_len);
    skb->iif = arrival.iif;
    skb->member_ifindex = arrival.member_ifindex;
    return skb;
}

} // namespace hosted
