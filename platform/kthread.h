// SPDX-License-Identifier: GPL-2.0
//
// Kernel threads. Task context throughout.
#pragma once

#include "platform/err.h"
#include "platform/label.h"

struct task_struct;

inline constexpr int NUMA_NO_NODE = -1;

extern "C" {

// Creates a thread that does not run yet; name is a literal. An error pointer on failure.
[[nodiscard]] task_struct *kthread_create_on_node(int (*body)(void *argument), void *argument,
                                                  int node, const char *name)
    KELM_PLATFORM(kthread_create_on_node);

// Lets a created thread start, or ends its sleep.
void wake_up_process(task_struct *task) KELM_PLATFORM(wake_up_process);

// Tells the thread to stop, wakes it and waits for its end; returns what its body returned, or
// -EINTR if it never started. The task is gone afterwards.
int kthread_stop(task_struct *task) KELM_PLATFORM(kthread_stop);

// Whether the calling thread was told to stop.
[[nodiscard]] bool kthread_should_stop() KELM_PLATFORM(kthread_should_stop);

// Sleeps for that many ticks, or until woken or told to stop.
void schedule_timeout_interruptible(long ticks) KELM_PLATFORM(schedule_timeout_interruptible);
}
