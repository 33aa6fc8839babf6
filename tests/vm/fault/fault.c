// SPDX-License-Identifier: GPL-2.0
//
// Commits one fault, chosen by the parameter "kind", when it is loaded. What is to notice it can
// then be seen to notice: that a log is silent proves something only where faults are reported.

#include <linux/delay.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/timer.h>

static char *kind = "";
module_param(kind, charp, 0);
MODULE_PARM_DESC(kind, "the fault to commit");

// Hides from the compiler what it would warn of, or leave out.
static void *volatile object;

static void fault_warning(void)
{
    WARN(1, "fault: a warning");
}

static void fault_overflow(void)
{
    object = kmalloc(64, GFP_KERNEL); // a size of which there is a slab
    ((char *)object)[64] = 1;
    kfree(object);
}

static void fault_use_after_free(void)
{
    object = kmalloc(40, GFP_KERNEL);
    kfree(object);
    ((char *)object)[8] = 1;
}

static void fault_leak(void)
{
    int i;

    for (i = 0; i < 16; i++) // something may look like a pointer to one
        object = kmalloc(40, GFP_KERNEL);
    object = NULL;
}

static DEFINE_MUTEX(mutex);

static void lock_mutex(struct timer_list *unused)
{
    mutex_lock(&mutex);
    mutex_unlock(&mutex);
}

static DEFINE_TIMER(sleeping_timer, lock_mutex);

static void fault_sleep_in_timer(void)
{
    mod_timer(&sleeping_timer, jiffies + 1);
    msleep(100);
    del_timer_sync(&sleeping_timer);
}

static DEFINE_SPINLOCK(lock_a);
static DEFINE_SPINLOCK(lock_b);

static void fault_lock_order(void)
{
    spin_lock(&lock_a);
    spin_lock(&lock_b);
    spin_unlock(&lock_b);
    spin_unlock(&lock_a);
    spin_lock(&lock_b);
    spin_lock(&lock_a);
    spin_unlock(&lock_a);
    spin_unlock(&lock_b);
}

static void do_nothing(struct timer_list *unused) {}

static void fault_free_armed_timer(void)
{
    struct timer_list *timer = kmalloc(sizeof(*timer), GFP_KERNEL);

    timer_setup(timer, do_nothing, 0);
    mod_timer(timer, jiffies + 3600 * HZ);
    kfree(timer); // with DEBUG_OBJECTS, which reports it, the timer is disarmed
}

static const struct {
    const char *name;
    void (*commit)(void);
} faults[] = {
    {"warning", fault_warning},
    {"overflow", fault_overflow},
    {"use-after-free", fault_use_after_free},
    {"leak", fault_leak},
    {"sleep-in-timer", fault_sleep_in_timer},
    {"lock-order", fault_lock_order},
    {"free-armed-timer", fault_free_armed_timer},
};

static int __init fault_init(void)
{
    size_t i;

    for (i = 0; i < ARRAY_SIZE(faults); i++)
        if (strcmp(kind, faults[i].name) == 0) {
            faults[i].commit();
            return 0;
        }
    pr_err("fault: there is no kind '%s'\n", kind);
    return -EINVAL;
}

static void __exit fault_exit(void) {}

module_init(fault_init);
module_exit(fault_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Deliberate faults, for the tests of kelm.ko");
