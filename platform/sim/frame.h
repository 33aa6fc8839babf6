// SPDX-License-Identifier: GPL-2.0
//
// What tests see of the network: frames that the engine sent, datagrams that peers send to it.
#pragma once

#include <cstdint>
#include <netinet/in.h>
#include <string>
#include <string_view>
#include <vector>

#include "platform/hosted/udp_frame.h"

struct net;

namespace sim
{

using bytes = std::vector<std::uint8_t>;

// An IPv6 address, or an IPv4 address in its mapped form.
[[nodiscard]] in6_addr address(std::string_view text);
[[nodiscard]] std::string to_string(const in6_addr &address);

enum class socket_kind { raw, packet, udp };

// One successful kernel_sendmsg.
struct frame {
    std::uint64_t tick;
    std::int64_t wall_ns; // the clocks at that moment, nanoseconds
    std::int64_t raw_ns;
    net *netns;
    socket_kind kind;
    std::uint32_t priority; // of the socket, as the next one
    int sndbuf;             // bytes
    std::uint32_t flags;    // MSG_*
    bytes name;             // the socket address, as it was passed
    bytes control;          // the control data, as it was passed
    bytes data;

    // What name and control say; zero where they say nothing.
    in6_addr destination; // of a raw socket, IPv4-mapped for IPv4
    in6_addr source;      // from the packet info
    int ifindex;          // from the packet info or the link-layer address
    bool has_packet_info;
};

// How the buffer of a datagram lies in memory.
enum class buffer_form {
    linear,
    fragmented, // all but the first `linear_len` bytes of the payload lie elsewhere
    cloned,     // shared with a packet tap, which must not see it change
};

// A datagram on its way to a UDP port of ours.
struct datagram {
    bytes payload;
    std::uint16_t port = 3784;
    in6_addr source = address("10.0.0.2");
    in6_addr destination = address("10.0.0.1");
    std::uint16_t source_port = 49152;
    std::uint8_t ttl = 255;
    std::uint8_t tos = 0;
    int ifindex = 2;
    int member_ifindex = 0;
    std::size_t link_len = hosted::ethernet_header_len; // 18 looks like a VLAN tag
    buffer_form form = buffer_form::linear;
    std::uint32_t linear_len = 0;
};

} // namespace sim
