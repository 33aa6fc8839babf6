// SPDX-License-Identifier: GPL-2.0
//
// A conversation with kelm-agent: one line of JSON there, one back.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>

namespace kelmctl
{

using agent_json = nlohmann::ordered_json;

constexpr char default_agent_socket[] = "/run/kelm-agent/control.sock";

// The agent's answer. Throws kelm::error when there is none, with the agent's own words when it
// refuses.
agent_json ask_agent(const std::string &socket_path, const agent_json &request);

// Hands over the lines of an answer that goes on, one by one, until `take` returns false. Throws
// kelm::error like ask_agent(), and when the agent ends the answer.
void follow_agent(const std::string &socket_path, const agent_json &request,
                  const std::function<bool(const agent_json &)> &take);

} // namespace kelmctl
