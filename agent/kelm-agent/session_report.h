// SPDX-License-Identifier: GPL-2.0
//
// A session as programs are told of it. Times are {"sec", "nsec"}, intervals are in microseconds.
#pragma once

#include <nlohmann/json.hpp>

#include "kelm-agent/agent.h"

namespace kelm_agent
{

nlohmann::ordered_json report_session(const session_driver &, const counters &);
nlohmann::ordered_json report_change(const std::string &session, const change &);

} // namespace kelm_agent
