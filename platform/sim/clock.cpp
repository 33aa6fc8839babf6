// SPDX-License-Identifier: GPL-2.0
#include "platform/clock.h"

#include "platform/sim/machine.h"

namespace
{

timespec64 split(std::int64_t ns)
{
    constexpr std::int64_t ns_per_second = 1'000'000'000;
    return {ns / ns_per_second, ns % ns_per_second};
}

} // namespace

void ktime_get_real_ts64(timespec64 *ts)
{
    *ts = split(sim::the_machine().clock.wall_ns);
}

void ktime_get_raw_ts64(timespec64 *ts)
{
    *ts = split(sim::the_machine().clock.raw_ns);
}

std::uint64_t get_jiffies_64()
{
    return sim::the_machine().clock.tick;
}
