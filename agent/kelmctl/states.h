// SPDX-License-Identifier: GPL-2.0
//
// What the statistics do not tell of a session.
#pragma once

#include <map>
#include <optional>

#include "kelmctl/context.h"

namespace kelmctl
{

struct session_state {
    std::optional<bool> timer_active;
    std::optional<kelm::packet_change> last_frame; // that was passed up
};

using session_states = std::map<std::uint32_t, session_state>; // by discriminator

// kelm has it for one namespace at a time: empty with -A.
session_states read_states(context &);

} // namespace kelmctl
