// SPDX-License-Identifier: GPL-2.0
/*
 * Services that the kernel has as the engine wants them, or nearly: memory, log, random numbers,
 * privilege, threads.
 */
#include <linux/bug.h>
#include <linux/kthread.h>
#include <linux/printk.h>
#include <linux/random.h>
#include <linux/sched.h>
#include <linux/slab.h>

#include "platform/linux/fault.h"
#include "platform/linux/glue.h"

/* A size of 0 would give a pointer that is not unique; failure is the engine's to report. */
void *kelm_kmalloc(size_t size, engine_gfp gfp)
{
    return fault_due() ? NULL : kmalloc(max_t(size_t, size, 1), kernel_gfp(gfp) | __GFP_NOWARN);
}

void *kelm_kzalloc(size_t size, engine_gfp gfp)
{
    return fault_due() ? NULL : kzalloc(max_t(size_t, size, 1), kernel_gfp(gfp) | __GFP_NOWARN);
}

void kelm_kfree(const void *ptr)
{
    kfree(ptr);
}

void kelm_printk(const char *fmt, ...)
{
    va_list args;

    va_start(args, fmt);
    vprintk(fmt, args);
    va_end(args);
}

void kelm_WARN(const char *fmt, ...)
{
    struct va_format text = {.fmt = fmt};
    va_list args;

    va_start(args, fmt);
    text.va = &args;
    WARN(1, "%pV\n", &text);
    va_end(args);
}

uint32_t kelm_prandom_u32(void)
{
    return get_random_u32();
}

struct task_struct *kelm_kthread_create_on_node(int (*body)(void *argument), void *argument,
                                                int node, const char *name)
{
    return fault_due() ? ERR_PTR(-ENOMEM)
                       : kthread_create_on_node(body, argument, node, "%s", name);
}

void kelm_wake_up_process(struct task_struct *task)
{
    wake_up_process(task);
}

int kelm_kthread_stop(struct task_struct *task)
{
    return kthread_stop(task);
}

bool kelm_kthread_should_stop(void)
{
    return kthread_should_stop();
}

void kelm_schedule_timeout_interruptible(long ticks)
{
    /* In this state before the question: a stop that comes in between ends the sleep at once. */
    set_current_state(TASK_INTERRUPTIBLE);
    if (!kthread_should_stop())
        schedule_timeout(ticks);
    __set_current_state(TASK_RUNNING);
}
