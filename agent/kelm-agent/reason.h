// SPDX-License-Identifier: GPL-2.0
//
// Why a session's state changed, in words.
#pragma once

#include <string>

#include "kelm-agent/session.h"

namespace kelm_agent
{

// RFC 5880 section 4.1, for people: "control detection time expired".
std::string diag_words(std::uint8_t diag);

// After a packet of the peer.
std::string heard_reason(const session &);
// After a detection time without one; `waited` is that time.
std::string silence_reason(kelm_microsecs waited);

} // namespace kelm_agent
