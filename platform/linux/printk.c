// SPDX-License-Identifier: GPL-2.0
#include <linux/bug.h>
#include <linux/printk.h>

#include "platform/linux/glue.h"

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
