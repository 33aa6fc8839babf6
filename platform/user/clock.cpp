// SPDX-License-Identifier: GPL-2.0
//
// The wall clock and the tick. The raw clock is the hosts' common one.
#include "platform/clock.h"

#include <ctime>

#include "platform/user/tick.h"

namespace kelmd
{

namespace
{

constexpr std::uint64_t ns_per_tick = 1'000'000;

// The kernel starts its count five minutes before 32 bits overflow, so that a cut tick shows
// early. So do we; but our count is 64 bits wide from the start.
constexpr std::uint64_t first_tick = 0x1'0000'0000 - 300'000;

std::uint64_t monotonic_ns()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 +
           static_cast<std::uint64_t>(now.tv_nsec);
}

// The monotonic time of first_tick.
std::uint64_t origin_ns()
{
    static const std::uint64_t origin = monotonic_ns();
    return origin;
}

} // namespace

timespec tick_start(std::uint64_t tick)
{
    const std::uint64_t ns = origin_ns() + (tick - first_tick) * ns_per_tick;
    return {static_cast<time_t>(ns / 1'000'000'000), static_cast<long>(ns % 1'000'000'000)};
}

} // namespace kelmd

std::uint64_t get_jiffies_64()
{
    const std::uint64_t origin = kelmd::origin_ns();
    return kelmd::first_tick + (kelmd::monotonic_ns() - origin) / kelmd::ns_per_tick;
}

void ktime_get_real_ts64(timespec64 *ts)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    *ts = {now.tv_sec, now.tv_nsec};
}
