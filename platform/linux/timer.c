// SPDX-License-Identifier: GPL-2.0
#include "platform/linux/compat.h"
#include "platform/linux/glue.h"
#include "platform/storage.h"

_Static_assert(sizeof(struct timer_list) <= KELM_TIMER_SIZE,
               "platform/storage.h sets too little aside");
_Static_assert(__alignof__(struct timer_list) <= KELM_STORAGE_ALIGN,
               "platform/storage.h sets too little aside");

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
