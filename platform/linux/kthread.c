// SPDX-License-Identifier: GPL-2.0
#include <linux/err.h>
#include <linux/jiffies.h>
#include <linux/kthread.h>
#include <linux/sched.h>

#include "platform/linux/fault.h"
#include "platform/linux/glue.h"

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
        schedule_timeout(msecs_to_jiffies(ticks));
    __set_current_state(TASK_RUNNING);
}
