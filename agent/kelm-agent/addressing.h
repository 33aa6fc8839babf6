// SPDX-License-Identifier: GPL-2.0
#pragma once

#include <cstdint>
#include <optional>

#include "kelm-agent/model.h"
#include "kelm-agent/neighbours.h"
#include "libkelm/interfaces.h"
#include "libkelm/packet.h"

namespace kelm_agent
{

// Where a session's packets leave and arrive: its configuration's names, looked up.
struct addressing {
    std::uint32_t transmit_ifindex = 0;              // 0: as the routes say
    std::uint32_t receive_ifindex = 0;               // 0: any
    std::optional<kelm::ethernet_settings> ethernet; // packets are whole frames
    bool operator==(const addressing &) const;
};

// Looks up what the configuration names. Where something does not exist (yet), there is none and
// `problem` says what is missing.
std::optional<addressing> find_addressing(const session_config &, const kelm::interfaces &,
                                          const neighbours &, std::string &problem);

// RFC 7130 section 2.3: where a member link's packets go.
inline constexpr kelm::mac_address lag_multicast = {{0x01, 0x00, 0x5e, 0x90, 0x00, 0x01}};

} // namespace kelm_agent
