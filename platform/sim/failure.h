// SPDX-License-Identifier: GPL-2.0
//
// How the simulation says that something is wrong: a rule of the platform broken by the engine, a
// kernel warning that was not expected, a leak.
#pragma once

#include <functional>
#include <string>

namespace sim
{

// Called with each failure. At first it prints the text and ends the process; a test framework
// installs what it fails a test with.
extern std::function<void(const std::string &)> on_failure;

// For failures after which the run can go on.
[[gnu::format(printf, 1, 2)]] void failure(const char *format, ...);

// For those after which it cannot: prints and ends the process.
[[noreturn, gnu::format(printf, 1, 2)]] void fatal(const char *format, ...);

} // namespace sim
