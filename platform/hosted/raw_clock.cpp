// SPDX-License-Identifier: GPL-2.0
//
// The raw monotonic clock of a user-space process. A file of its own, because it is the one
// service that the protocol library needs when it is used outside the engine.
#include <ctime>

#include "platform/clock.h"

void ktime_get_raw_ts64(timespec64 *ts)
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_RAW, &now);
    *ts = {now.tv_sec, now.tv_nsec};
}
