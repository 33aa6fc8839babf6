// SPDX-License-Identifier: GPL-2.0
#pragma once

#include "kelmctl/command.h"

namespace kelmctl
{

// Each is a whole help text, made from the table.
std::string overview_help();
std::string object_help(const object &);
std::string command_help(const object &, const command &);

// The parameters as a synopsis shows them, "name VALUE ...".
std::string synopsis(const object &, const command &);

} // namespace kelmctl
