// SPDX-License-Identifier: GPL-2.0
//
// Spinlocks. A holder must not sleep. Not recursive.
#pragma once

#include "platform/label.h"
#include "platform/storage.h"

struct spinlock_t {
    alignas(KELM_STORAGE_ALIGN) unsigned char storage[KELM_SPINLOCK_SIZE];
};

extern "C" {

// Prepares a lock, unlocked; to be called before any other use, again only while it is not held,
// in any context. rank is the lock's place in the lock order: a processor takes locks in rising
// rank only, and never two of one rank. All locks of one rank form one class of the kernel's lock
// validator, name names it. rank is below 16; name is a literal.
void spin_lock_init(spinlock_t *lock, unsigned int rank, const char *name)
    KELM_PLATFORM(spin_lock_init);

// For softirq context, where bottom halves cannot interrupt.
void spin_lock(spinlock_t *lock) KELM_PLATFORM(spin_lock);
void spin_unlock(spinlock_t *lock) KELM_PLATFORM(spin_unlock);

// For any context: keeps bottom halves off this processor while the lock is held.
void spin_lock_bh(spinlock_t *lock) KELM_PLATFORM(spin_lock_bh);
void spin_unlock_bh(spinlock_t *lock) KELM_PLATFORM(spin_unlock_bh);
}
