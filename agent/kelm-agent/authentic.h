// SPDX-License-Identifier: GPL-2.0
#pragma once

#include <optional>

#include "kelm-agent/kelm_sync.h"
#include "libkelm/report.h"

namespace kelm_agent
{

// Checks a frame that kelm has passed up by what the session demands: addresses, port, interface,
// TTL, authentication, and that it is no replay. kelm does so itself for a session that it has, but
// it also passes up packets for which it has none, and the two look alike. `last_sequence` is the
// last sequence number that was heard, or nothing where any will do; it follows what is accepted.
bool is_authentic(const session_config &, const addressing &, const kelm::packet_change &,
                  bool is_up, std::optional<std::uint32_t> &last_sequence);

} // namespace kelm_agent
