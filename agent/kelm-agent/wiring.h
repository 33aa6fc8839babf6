// SPDX-License-Identifier: GPL-2.0
#pragma once

#include "kelm-agent/kelm_port.h"
#include "kelm-agent/neighbours.h"
#include "libkelm/interfaces.h"

namespace kelm_agent
{

// Looks up what the configuration names. Where something does not exist (yet), there is no wiring
// and `obstacle` says what is missing.
std::optional<wiring> find_wiring(const session_config &, const kelm::interfaces &,
                                  const neighbours &, std::string &obstacle);

// RFC 7130 section 2.3: where a member link's packets go.
inline constexpr kelm::mac_address lag_multicast = {{0x01, 0x00, 0x5e, 0x90, 0x00, 0x01}};

} // namespace kelm_agent
