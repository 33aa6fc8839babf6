// SPDX-License-Identifier: GPL-2.0
//
// The state machines: RFC 5880 section 6.8.6, and the S-BFD initiator's of RFC 7880 section 7.3.
#pragma once

#include <cstdint>

#include "Bfd.h"

namespace kelm_agent
{

// bfd.SessionState and bfd.LocalDiag, the reason for the state's last change.
struct condition {
    std::uint8_t state = BFD_STATE_DOWN;
    std::uint8_t diag = BFD_DIAG_NONE;
    bool operator==(const condition &) const = default;
};

// After a packet with state `received`.
condition after_packet(condition now, std::uint8_t received);

// After a reply from an S-BFD reflector.
condition after_reflection(condition now, std::uint8_t received);

// After the detection time has expired.
condition after_timeout(condition now, std::uint8_t diag);

condition administratively_down();
// After the administrator has enabled the session again.
condition administratively_enabled();

} // namespace kelm_agent
