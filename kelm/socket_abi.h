// SPDX-License-Identifier: GPL-2.0
//
// Numbers and layouts of the Linux socket interface, as socket creation, addresses and control
// data of the platform's sockets have them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kelm/ip_addresses.h"

inline constexpr std::uint16_t AF_INET6 = 10;
inline constexpr std::uint16_t AF_PACKET = 17;
inline constexpr int SOCK_DGRAM = 2;
inline constexpr int SOCK_RAW = 3;
inline constexpr int IPPROTO_RAW = 255;
inline constexpr std::uint32_t MSG_DONTWAIT = 0x40;
inline constexpr std::uint32_t MSG_CONFIRM = 0x800;
inline constexpr int SOL_IP = 0;
inline constexpr int IP_PKTINFO = 8;
inline constexpr int SOL_IPV6 = 41;
inline constexpr int IPV6_PKTINFO = 50;

struct sockaddr_inet6 {
    std::uint16_t family;
    std::uint16_t port; // network order
    std::uint32_t flowinfo;
    std::uint8_t addr[ipv6_addr_len];
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
    std::uint8_t spec_dst[ipv4_addr_len]; // local source
    std::uint8_t addr[ipv4_addr_len];
};
inline constexpr std::size_t ipv4_pktinfo_len = sizeof(control_header) + 12;
static_assert(offsetof(ipv4_pktinfo, addr) + ipv4_addr_len == ipv4_pktinfo_len);

struct ipv6_pktinfo {
    control_header header;
    std::uint8_t addr[ipv6_addr_len]; // local source
    std::uint32_t ifindex;
};
inline constexpr std::size_t ipv6_pktinfo_len = sizeof(control_header) + 20;
static_assert(offsetof(ipv6_pktinfo, ifindex) + 4 == ipv6_pktinfo_len);
static_assert(sizeof(ipv6_pktinfo) == 40);
