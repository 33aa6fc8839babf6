// SPDX-License-Identifier: GPL-2.0
/*
 * Timers: one high-resolution timer each, whose handler runs in softirq.
 *
 * The engine restarts its detection timers with every packet, nearly always to a later time. That
 * leaves the high-resolution timer where it is: when it wakes before the timer is due, its handler
 * moves it on. Whether a timer fires, and for when it is armed, is decided under its lock alone.
 */
#include <linux/hrtimer.h>
#include <linux/printk.h>

#include "platform/linux/clock.h"
#include "platform/linux/compat.h"
#include "platform/linux/glue.h"
#include "platform/storage.h"

struct engine_timer {
    spinlock_t lock; /* for the members up to function, and for starting wakeup */
    bool armed;
    bool will_wake;        /* the handler will run, or waits for the lock */
    unsigned long expires; /* the tick that the engine named */
    unsigned long due;     /* the first tick at which it may fire */
    unsigned long wakes;   /* the tick for which wakeup was started */
    void (*function)(struct engine_timer *timer);
    struct hrtimer wakeup;
};

_Static_assert(sizeof(struct engine_timer) <= KELM_TIMER_SIZE,
               "platform/storage.h sets too little aside");
_Static_assert(__alignof__(struct engine_timer) <= KELM_STORAGE_ALIGN,
               "platform/storage.h sets too little aside");

/* The caller holds the lock. */
static void wake_when_due(struct engine_timer *timer)
{
    timer->will_wake = true;
    timer->wakes = timer->due;
    hrtimer_start(&timer->wakeup, tick_start(timer->due), HRTIMER_MODE_ABS_SOFT);
}

/* Whether the timer fires now; if so it is no longer armed. */
static bool fires(struct engine_timer *timer)
{
    bool fire = false;

    spin_lock(&timer->lock);
    /* Started again while this handler waited for the lock: the next run decides. */
    if (hrtimer_is_queued(&timer->wakeup))
        goto out;
    timer->will_wake = false;
    if (!timer->armed)
        goto out;
    if (kelm_get_jiffies_64() < timer->due) {
        wake_when_due(timer);
        goto out;
    }
    timer->armed = false;
    fire = true;
out:
    spin_unlock(&timer->lock);
    return fire;
}

/* The engine's callback may free the timer. */
static enum hrtimer_restart wake(struct hrtimer *wakeup)
{
    struct engine_timer *timer = container_of(wakeup, struct engine_timer, wakeup);

    if (fires(timer))
        timer->function(timer);
    return HRTIMER_NORESTART;
}

void kelm_timer_setup(engine_timer *timer, void (*function)(engine_timer *timer))
{
    *timer = (struct engine_timer){.function = function};
    spin_lock_init(&timer->lock);
    compat_hrtimer_setup(&timer->wakeup, wake, CLOCK_MONOTONIC, HRTIMER_MODE_ABS_SOFT);
}

int kelm_mod_timer(engine_timer *timer, unsigned long expires)
{
    bool was_armed;

    spin_lock_bh(&timer->lock);
    was_armed = timer->armed;
    timer->armed = true;
    timer->expires = expires;
    timer->due = max_t(unsigned long, expires, kelm_get_jiffies_64() + 1);
    if (!timer->will_wake || timer->due < timer->wakes)
        wake_when_due(timer);
    spin_unlock_bh(&timer->lock);
    return was_armed;
}

int kelm_del_timer(engine_timer *timer)
{
    bool was_armed;

    spin_lock_bh(&timer->lock);
    was_armed = timer->armed;
    timer->armed = false;
    /* While a handler runs, the timer stays queued if it is, and wakes once more for nothing. */
    if (hrtimer_try_to_cancel(&timer->wakeup) >= 0)
        timer->will_wake = false;
    spin_unlock_bh(&timer->lock);
    return was_armed;
}

int kelm_del_timer_sync(engine_timer *timer)
{
    int was_armed = kelm_del_timer(timer);

    hrtimer_cancel(&timer->wakeup);
    /* Again: a callback that was running may have armed it. */
    return kelm_del_timer(timer) | was_armed;
}

bool kelm_timer_pending(const engine_timer *timer)
{
    return READ_ONCE(timer->armed);
}

unsigned long kelm_timer_expires(const engine_timer *timer)
{
    return READ_ONCE(timer->expires);
}
