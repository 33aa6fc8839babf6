// SPDX-License-Identifier: GPL-2.0
#pragma once

#include <iosfwd>
#include <span>

namespace kelmctl
{

enum exit_status { success = 0, failure = 1, usage = 2 };

// The whole program, command line with its name included; it does not throw.
exit_status run(std::span<char *const> argv, std::ostream &out, std::ostream &err);

} // namespace kelmctl
