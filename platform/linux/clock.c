// SPDX-License-Identifier: GPL-2.0
/*
 * Clocks and ticks.
 */
#include <linux/jiffies.h>
#include <linux/ktime.h>
#include <linux/math64.h>
#include <linux/timekeeping.h>

#include "platform/linux/glue.h"

void kelm_ktime_get_real_ts64(struct timespec64 *ts)
{
    ktime_get_real_ts64(ts);
}

void kelm_ktime_get_raw_ts64(struct timespec64 *ts)
{
    ktime_get_raw_ts64(ts);
}

uint64_t kelm_get_jiffies_64(void)
{
    return get_jiffies_64();
}

/* The kernel's own conversions turn the longest durations into ones without end. */
unsigned long kelm___usecs_to_jiffies(unsigned int usecs)
{
    return DIV_ROUND_UP_ULL((u64)usecs * HZ, USEC_PER_SEC);
}

unsigned long kelm___msecs_to_jiffies(unsigned int msecs)
{
    return DIV_ROUND_UP_ULL((u64)msecs * HZ, MSEC_PER_SEC);
}

unsigned int kelm_jiffies_to_usecs(unsigned long ticks)
{
    return jiffies_to_usecs(ticks);
}
