/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The engine's tick: a millisecond of CLOCK_MONOTONIC, whatever the kernel's own is.
 */
#ifndef KELM_PLATFORM_LINUX_CLOCK_H
#define KELM_PLATFORM_LINUX_CLOCK_H

#include <linux/ktime.h>

/* When a tick begins, for ticks up to a century ahead. */
ktime_t tick_start(uint64_t tick);

/* Says so in the kernel log if timers cannot be exact to a tick here. */
void clock_tell_resolution(void);

#endif
