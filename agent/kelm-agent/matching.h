// SPDX-License-Identifier: GPL-2.0
#pragma once

#include "kelm-agent/addressing.h"
#include "libkelm/frame.h"

namespace kelm_agent
{

// The UDP port that a kind of session's packets go to, and the one where they arrive.
std::uint16_t destination_port(session_kind);
std::uint16_t arrival_port(session_kind);

// What a session's packets come from when they arrive.
const kelm::ip_address &arrival_source(const session_config &);

// Whether a received packet has the addresses and the port of the session's peer, and came by its
// interface.
bool is_from_peer(const session_config &, const addressing &, const kelm::packet_change &,
                  const kelm::frame_info &);

// The same for a packet without our discriminator, which belongs to the session by nothing else
// (RFC 5880 section 6.3, RFC 5881 section 3, RFC 5883 section 4): its member link, too, must be
// known.
bool is_addressed_to(const session_config &, const addressing &, const kelm::packet_change &,
                     const kelm::frame_info &);

} // namespace kelm_agent
