// SPDX-License-Identifier: GPL-2.0
#pragma once

#include "kelmctl/command.h"

namespace kelmctl
{

// Each object's file defines its commands.
extern const std::span<const command> session_commands;
extern const std::span<const command> packet_commands;
extern const std::span<const command> statistics_commands;
extern const std::span<const command> top_commands;
extern const std::span<const command> tx_path_commands;
extern const std::span<const command> debug_commands;
extern const std::span<const command> sync_commands;
extern const std::span<const command> monitor_commands;
extern const std::span<const command> agent_commands;

} // namespace kelmctl
