// SPDX-License-Identifier: GPL-2.0
#include "platform/linux/clock.h"

#include <linux/hrtimer.h>
#include <linux/math64.h>
#include <linux/printk.h>
#include <linux/timekeeping.h>

#include "platform/linux/glue.h"

/* As the kernel's own count: 32 bits overflow after five minutes, so that a cut tick shows early.
 */
#define BOOT_TICK (0x100000000ULL - 300 * MSEC_PER_SEC)

ktime_t tick_start(uint64_t tick)
{
    return ms_to_ktime(tick - BOOT_TICK);
}

void clock_tell_resolution(void)
{
    if (hrtimer_resolution > NSEC_PER_USEC)
        pr_notice("kelm: no high-resolution timers here: they fire up to %u us late\n",
                  (unsigned int)(hrtimer_resolution / NSEC_PER_USEC));
}

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
    return BOOT_TICK + div_u64(ktime_get_ns(), NSEC_PER_MSEC);
}

unsigned long kelm___usecs_to_jiffies(unsigned int usecs)
{
    return DIV_ROUND_UP_ULL((u64)usecs, USEC_PER_MSEC);
}

unsigned long kelm___msecs_to_jiffies(unsigned int msecs)
{
    return msecs;
}

unsigned int kelm_jiffies_to_usecs(unsigned long ticks)
{
    return ticks * USEC_PER_MSEC;
}
