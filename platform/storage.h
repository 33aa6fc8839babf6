// SPDX-License-Identifier: GPL-2.0
/*
 * Room that the engine sets aside for host types which it embeds by value. Plain C
 * macros, so that a host written in C can include them and assert that its type fits.
 * Sized for kernels built with lock debugging.
 */
#ifndef KELM_PLATFORM_STORAGE_H
#define KELM_PLATFORM_STORAGE_H

#define KELM_STORAGE_ALIGN 8
#define KELM_SPINLOCK_SIZE 96
#define KELM_TIMER_SIZE 192

#endif
