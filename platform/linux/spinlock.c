// SPDX-License-Identifier: GPL-2.0
#include <linux/lockdep.h>

#include "platform/linux/glue.h"
#include "platform/storage.h"

_Static_assert(sizeof(spinlock_t) <= KELM_SPINLOCK_SIZE,
               "platform/storage.h sets too little aside");
_Static_assert(__alignof__(spinlock_t) <= KELM_STORAGE_ALIGN,
               "platform/storage.h sets too little aside");

/* One class a rank for the lock validator, which otherwise sees one for all that are made here. */
static struct lock_class_key classes[16];

void kelm_spin_lock_init(spinlock_t *lock, unsigned int rank, const char *name)
{
    spin_lock_init(lock);
    lockdep_set_class_and_name(lock, &classes[rank], name);
}

void kelm_spin_lock(spinlock_t *lock)
{
    spin_lock(lock);
}

void kelm_spin_unlock(spinlock_t *lock)
{
    spin_unlock(lock);
}

void kelm_spin_lock_bh(spinlock_t *lock)
{
    spin_lock_bh(lock);
}

void kelm_spin_unlock_bh(spinlock_t *lock)
{
    spin_unlock_bh(lock);
}
