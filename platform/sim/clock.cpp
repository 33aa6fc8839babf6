// SPDX-License-Identifier: GPL-2.0
#include "platform/clock.h"

#include "platform/sim/state.h"

namespace
{

timespec64 split(std::int64_t ns)
{
    constexpr std::int64_t NS_PER_SECOND = 1'000'000'000;
    return {ns / NS_PER_SECOND, ns % NS_PER_SECOND};
}

} // namespace

void ktime_get_real_ts64(timespec64 *ts)
{
    *ts = split(sim::the().clock.wall_ns);
}

void ktime_get_raw_ts64(timespec64 *ts)
{
    *ts = split(sim::the().clock.raw_ns);
}

std::uint64_t get_jiffies_64()
{
    return sim::the().clock.tick;
}
