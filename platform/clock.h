// SPDX-License-Identifier: GPL-2.0
//
// Clocks: the wall clock, the raw monotonic clock, and the tick counter.
#pragma once

#include <cstdint>

#include "platform/label.h"

struct timespec64 {
    std::int64_t tv_sec;
    long tv_nsec; // 0 to 999,999,999
};

extern "C" {

// The wall clock: seconds since 1970, may be stepped either way. Any context.
void ktime_get_real_ts64(timespec64 *ts) KELM_PLATFORM(ktime_get_real_ts64);

// A clock that is never adjusted and never goes back while the machine is up. Any context.
void ktime_get_raw_ts64(timespec64 *ts) KELM_PLATFORM(ktime_get_raw_ts64);

// The tick count. Never goes back, is never 0 and does not wrap. Any context.
[[nodiscard]] std::uint64_t get_jiffies_64() KELM_PLATFORM(get_jiffies_64);

// Durations to ticks, rounded up; any value of the argument. Any context.
[[nodiscard]] unsigned long __usecs_to_jiffies(unsigned int usecs)
    KELM_PLATFORM(__usecs_to_jiffies);
[[nodiscard]] unsigned long __msecs_to_jiffies(unsigned int msecs)
    KELM_PLATFORM(__msecs_to_jiffies);

// The length of that many ticks in microseconds. Any context.
[[nodiscard]] unsigned int jiffies_to_usecs(unsigned long ticks) KELM_PLATFORM(jiffies_to_usecs);
}
