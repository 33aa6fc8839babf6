// SPDX-License-Identifier: GPL-2.0
//
// What may come next on a command line, for the shell.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kelmctl
{

// The shell asks with "kelmctl __complete WORD...".
constexpr std::string_view complete_command = "__complete";

// The words that the last of `line` may become, which come from the tables of objects, commands,
// parameters and options, from the interfaces of the network namespace, and from the names of
// namespaces. `line` has no program name; its last one may be empty. Nothing where anything goes.
std::vector<std::string> complete(std::span<char *const> line);

} // namespace kelmctl
