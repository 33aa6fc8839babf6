// SPDX-License-Identifier: GPL-2.0
//
// The wall clock and the tick. The raw clock and the conversions are what all hosts share.
#include "platform/user/clock.h"

#include "platform/clock.h"

namespace kelmd
{

namespace
{

constexpr std::uint64_t ns_per_second = 1'000'000'000;
constexpr std::uint64_t ns_per_tick = 1'000'000;

// The kernel starts its count five minutes before 32 bits overflow, so that a cut tick shows
// early. So does ours, but it is 64 bits wide from the start.
constexpr std::uint64_t boot_tick = 0x1'0000'0000 - 300'000;

} // namespace

timespec tick_start(std::uint64_t tick)
{
    const std::uint64_t ns = (tick - boot_tick) * ns_per_tick;
    return {static_cast<time_t>(ns / ns_per_second), static_cast<long>(ns % ns_per_second)};
}

} // namespace kelmd

// Services

using namespace kelmd;

std::uint64_t get_jiffies_64()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return boot_tick + (static_cast<std::uint64_t>(now.tv_sec) * ns_per_second +
                        static_cast<std::uint64_t>(now.tv_nsec)) /
                           ns_per_tick;
}

void ktime_get_real_ts64(timespec64 *ts)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    *ts = {now.tv_sec, now.tv_nsec};
}
