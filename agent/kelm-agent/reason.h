// SPDX-License-Identifier: GPL-2.0
//
// Why a session's state changed, in words.
#ifndef KELM_AGENT_REASON_H
#define KELM_AGENT_REASON_H

#include <string>

#include "kelm-agent/session.h"

namespace kelm_agent
{

// RFC 5880 section 4.1, for people: "control detection time expired".
std::string diag_words(uint8_t diag);

// After a packet of the peer.
std::string heard_reason(const session &);
// After a detection time without one; `waited` is that time.
std::string silence_reason(kelm_microsecs waited);

} // namespace kelm_agent

#endif
