// SPDX-License-Identifier: GPL-2.0
//
// Conversions to the hosts' tick, which is one millisecond.
#include "platform/clock.h"

namespace
{

constexpr unsigned int usecs_per_tick = 1000;

} // namespace

unsigned long __usecs_to_jiffies(unsigned int usecs)
{
    return (static_cast<unsigned long>(usecs) + usecs_per_tick - 1) / usecs_per_tick;
}

unsigned long __msecs_to_jiffies(unsigned int msecs)
{
    return msecs;
}

unsigned int jiffies_to_usecs(unsigned long ticks)
{
    return static_cast<unsigned int>(ticks * usecs_per_tick);
}
