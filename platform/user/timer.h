// SPDX-License-Identifier: GPL-2.0
//
// The softirq thread's view of the timers.
#pragma once

#include <cstdint>

namespace kelmd
{

// A descriptor that becomes readable (edge-triggered) when timers may be due; see
// sleep_until_timers.
[[nodiscard]] int timer_clock_fd();

// Makes timer_clock_fd readable now.
void ring_timer_clock();

// Prepares a sleep that began at tick now. False if a timer is due already. Else the clock rings
// at the tick of the next timer, and earlier if another thread arms an earlier one meanwhile.
[[nodiscard]] bool sleep_until_timers(std::uint64_t now);

// Calls the callbacks of all timers due at that tick or before; not those that are armed
// meanwhile. The softirq thread alone.
void run_timers(std::uint64_t up_to);

} // namespace kelmd
