// SPDX-License-Identifier: GPL-2.0
//
// A conversation with kelm-agent: one line of JSON there, one back.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace kelmctl
{

using agent_json = nlohmann::ordered_json;

constexpr char default_agent_socket[] = "/run/kelm-agent/control.sock";

// The agent's answer. Throws kelm::error when there is none, with the agent's own words when it
// refuses.
agent_json ask_agent(const std::string &socket_path, const agent_json &request);

} // namespace kelmctl
