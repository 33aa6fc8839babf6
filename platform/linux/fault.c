// SPDX-License-Identifier: GPL-2.0
#include "platform/linux/fault.h"

#include <linux/atomic.h>
#include <linux/kernel.h>
#include <linux/module.h>

static atomic_t calls_left = ATOMIC_INIT(0);

bool fault_due(void)
{
    return atomic_dec_if_positive(&calls_left) == 0;
}

static int set_fail_at(const char *value, const struct kernel_param *kp)
{
    int calls;
    int err = kstrtoint(value, 0, &calls);

    if (err)
        return err;
    atomic_set(&calls_left, calls);
    return 0;
}

static int get_fail_at(char *buffer, const struct kernel_param *kp)
{
    return sprintf(buffer, "%d\n", atomic_read(&calls_left));
}

static const struct kernel_param_ops fail_at_ops = {
    .set = set_fail_at,
    .get = get_fail_at,
};
module_param_cb(fail_at, &fail_at_ops, NULL, 0644);
MODULE_PARM_DESC(fail_at, "let the n-th call from now of a service that can fail do so; 0: none");
