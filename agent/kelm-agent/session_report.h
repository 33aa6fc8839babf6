// SPDX-License-Identifier: GPL-2.0
//
// A session as programs are told of it. Times are {"sec", "nsec"}, intervals are in microseconds.
#pragma once

#include "kelm-agent/agent.h"
#include "kelm-agent/json_writer.h"

namespace kelm_agent
{

void add_session(json_writer &, const session_driver &, const counters &);
// A session's state, and a change of it, as those who subscribe are told.
void add_state(json_writer &, const session_driver &);
void add_change_of_state(json_writer &, const session_driver &, const change &);

void add_change(json_writer &, const std::string &session, const change &);

} // namespace kelm_agent
