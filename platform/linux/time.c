// SPDX-License-Identifier: GPL-2.0
/*
 * Clocks, ticks and timers.
 */
#include <linux/jiffies.h>
#include <linux/ktime.h>
#include <linux/math64.h>
#include <linux/timekeeping.h>

#include "platform/linux/compat.h"
#include "platform/linux/glue.h"
#include "platform/storage.h"

_Static_assert(sizeof(struct timer_list) <= KELM_TIMER_SIZE,
               "platform/storage.h sets too little aside");
_Static_assert(__alignof__(struct timer_list) <= KELM_STORAGE_ALIGN,
               "platform/storage.h sets too little aside");

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

void kelm_timer_setup(struct timer_list *timer, void (*function)(struct timer_list *timer))
{
    timer_setup(timer, function, 0);
    timer->expires = 0;
}

int kelm_mod_timer(struct timer_list *timer, unsigned long expires)
{
    return mod_timer(timer, expires);
}

int kelm_del_timer(struct timer_list *timer)
{
    return compat_timer_delete(timer);
}

int kelm_del_timer_sync(struct timer_list *timer)
{
    return compat_timer_delete_sync(timer);
}

bool kelm_timer_pending(const struct timer_list *timer)
{
    return timer_pending(timer);
}

unsigned long kelm_timer_expires(const struct timer_list *timer)
{
    return timer->expires;
}
