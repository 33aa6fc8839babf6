// SPDX-License-Identifier: GPL-2.0
//
// A session as programs are told of it. Times are {"sec", "nsec"}, intervals are in microseconds.
#pragma once

#include <nlohmann/json.hpp>

#include "kelm-agent/agent.h"

namespace kelm_agent
{

struct counters {
    std::optional<kelm_msg_rx_stats> received;
    std::optional<kelm_msg_tx_stats> sent;
};

using statistics_by_discriminator = std::map<std::uint32_t, counters>;

// From kelm; of those sessions that it has and for which it answers.
statistics_by_discriminator read_statistics(agent &, const std::vector<std::string> &names);

nlohmann::ordered_json report_session(const managed_session &, const statistics_by_discriminator &);
nlohmann::ordered_json report_change(const std::string &session, const change &);

} // namespace kelm_agent
