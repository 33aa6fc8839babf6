// SPDX-License-Identifier: GPL-2.0
//
// The kinds of BFD sessions: what tells them apart on the wire.
#pragma once

#include <cstdint>

#include "kelm.h"

namespace kelm
{

// kelm_rx_session_types; session_type_names has their names.
enum class session_kind : std::uint8_t {
    single_hop = KELM_RX_SESSION_BFD,      // RFC 5881
    echo = KELM_RX_SESSION_ECHO,           // our own packets, sent back by a neighbor: RFC 5881
    lag = KELM_RX_SESSION_LAG,             // a member link of an aggregate: RFC 7130
    multihop = KELM_RX_SESSION_MULTIHOP,   // RFC 5883
    sbfd = KELM_RX_SESSION_SBFD_INITIATOR, // RFC 7880
};

// UDP ports: that packets are sent to, and that the peer's arrive on.
std::uint16_t destination_port(session_kind);
std::uint16_t arrival_port(session_kind);

// The source ports of RFC 5881 section 4: from here up, as many as there are.
constexpr std::uint16_t first_source_port = 49152;
constexpr std::uint32_t source_port_count = 16384;

// The port that all packets of a session come from. Discriminators that are equal modulo
// source_port_count share one; S-BFD has a port of its own, where the reflections arrive.
std::uint16_t source_port(session_kind, std::uint32_t discriminator);

} // namespace kelm
