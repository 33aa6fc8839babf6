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

// Whether a received packet belongs to the session by its addresses, its port and its interface:
// what there is to go by before the discriminators are known (RFC 5880 section 6.3, RFC 5881
// section 3, RFC 5883 section 4).
bool is_addressed_to(const session_config &, const addressing &, const kelm::packet_change &,
                     const kelm::frame_info &);

} // namespace kelm_agent
