// SPDX-License-Identifier: GPL-2.0
//
// The hosts' tick is one millisecond.
#include "platform/clock.h"

namespace
{

constexpr unsigned int USECS_PER_TICK = 1000;

} // namespace

unsigned long __usecs_to_jiffies(unsigned int usecs)
{
    return (static_cast<unsigned long>(usecs) + USECS_PER_TICK - 1) / USECS_PER_TICK;
}

unsigned long __msecs_to_jiffies(unsigned int msecs)
{
    return msecs;
}

unsigned int jiffies_to_usecs(unsigned long ticks)
{
    return static_cast<unsigned int>(ticks * USECS_PER_TICK);
}
