// SPDX-License-Identifier: GPL-2.0
//
// What a restarted agent makes of kelm's dump: which sessions go on, and where they stand.
#pragma once

#include <map>

#include "kelm-agent/kelm_sync.h"
#include "kelm-agent/state_file.h"
#include "libkelm/report.h"

namespace kelm_agent
{

// What kelm has for one discriminator.
struct found {
    bool has_packet = false;
    bool has_session = false;
    bool timer_active = false;
    std::optional<kelm::packet_change> frame; // that the session passed up last
};

using inventory = std::map<std::uint32_t, found>; // by discriminator

inventory take_inventory(const std::vector<kelm::report> &dump);

// The session of this configuration by its last packet's addresses, for want of a record of ours.
std::optional<std::uint32_t> recognise(const session_config &, const addressing &,
                                       const inventory &);

// `saved` may be null.
remains remains_of(const found &, const saved_session *saved);

} // namespace kelm_agent
