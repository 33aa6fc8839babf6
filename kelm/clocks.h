// SPDX-License-Identifier: GPL-2.0
//
// Arithmetic on clock readings.
#pragma once

#include <cstdint>

#include "kelm/kelm.h"
#include "platform/clock.h"

[[nodiscard]] inline std::int64_t to_nsecs(const timespec64 &time)
{
    return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

[[nodiscard]] inline timespec64 wall_clock()
{
    timespec64 now;
    ktime_get_real_ts64(&now);
    return now;
}

// Microseconds from one wall clock reading to another, each cut to whole microseconds;
// negative if the clock was set back.
[[nodiscard]] inline std::int64_t usecs_between(const timespec64 &from, const timespec64 &to)
{
    return to_nsecs(to) / 1000 - to_nsecs(from) / 1000;
}

[[nodiscard]] inline bool is_zero(const timespec64 &time)
{
    return time.tv_sec == 0 && time.tv_nsec == 0;
}

// The clock of round-trip stamps: the raw monotonic clock in units of 16 ns, modulo 2^32.
[[nodiscard]] inline std::uint32_t rtt_clock()
{
    timespec64 now;
    ktime_get_raw_ts64(&now);
    return static_cast<std::uint32_t>(to_nsecs(now) >> 4);
}

// Stamps a message of statistics with the wall clock.
template<typename Message>
void set_timestamp(Message &msg)
{
    const timespec64 now = wall_clock();
    msg.timestamp_secs = static_cast<std::uint64_t>(now.tv_sec);
    msg.timestamp_nsecs = static_cast<std::uint64_t>(now.tv_nsec);
}

// As messages carry it.
[[nodiscard]] inline kelm_time to_kelm_time(const timespec64 &time)
{
    return {static_cast<std::uint32_t>(time.tv_sec), static_cast<std::uint32_t>(time.tv_nsec)};
}
