// SPDX-License-Identifier: GPL-2.0
//
// The headers below UDP's payload, written back in front of it: what a UDP socket has stripped
// off, as far as it is known from ancillary data.
#pragma once

#include <cstddef>
#include <cstdint>
#include <netinet/in.h>
#include <span>

#include "platform/memory.h"

struct sk_buff;

namespace hosted
{

inline constexpr std::size_t ethernet_header_len = 14;

struct udp_arrival {
    // As a dual-stack socket gives them: those of an IPv4 datagram are IPv4-mapped.
    in6_addr source;
    in6_addr destination;
    std::uint16_t source_port; // host byte order, both
    std::uint16_t destination_port;
    std::uint8_t ttl; // or hop limit
    std::uint8_t tos; // or traffic class
    int iif;
    int member_ifindex;
};

// The length of the headers of such a datagram.
[[nodiscard]] std::size_t udp_header_room(const udp_arrival &arrival,
                                          std::size_t link_len = ethernet_header_len);

// Writes link, IPv4 or IPv6, and UDP header into the udp_header_room bytes before the payload.
// The link header, if there is to be one, is zero but for the EtherType at its end; lengths and
// checksums are valid.
void write_udp_headers(std::span<std::uint8_t> payload, const udp_arrival &arrival,
                       std::size_t link_len = ethernet_header_len);

// The whole frame as a received buffer: data at the payload, header positions and interfaces
// set. Null without memory. Any context.
[[nodiscard]] sk_buff *udp_frame_skb(std::span<const std::uint8_t> payload,
                                     const udp_arrival &arrival,
                                     std::size_t link_len = ethernet_header_len);

} // namespace hosted
