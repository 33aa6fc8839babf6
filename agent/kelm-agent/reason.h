// SPDX-License-Identifier: GPL-2.0
//
// Texts that say why a session's state changed.
#pragma once

#include <string>

#include "kelm-agent/session.h"

namespace kelm_agent
{

// "admin-down"
std::string state_name(std::uint8_t state);

// A diagnostic (RFC 5880 section 4.1) as text: "control detection time expired".
std::string diag_words(std::uint8_t diag);

// After a packet of the peer.
std::string heard_reason(const session &);
// After a detection time, `waited`, without a packet.
std::string silence_reason(kelm_microsecs waited);

} // namespace kelm_agent
