// SPDX-License-Identifier: GPL-2.0
//
// Spinlocks as mutexes with priority inheritance, and the check of the lock order. Softirqs are
// a thread of their own here, so keeping bottom halves off is nothing more than the lock.
#include "platform/spinlock.h"

#include <new>

#include "platform/hosted/mutex.h"
#include "platform/user/context.h"

namespace
{

using kelmd::check_context, kelmd::context_violated, kelmd::this_context;

struct host_spinlock {
    hosted::mutex mutex;
    const char *name;
    unsigned int rank;
};
static_assert(sizeof(host_spinlock) <= KELM_SPINLOCK_SIZE);
static_assert(alignof(host_spinlock) <= KELM_STORAGE_ALIGN);

host_spinlock &host(spinlock_t *lock)
{
    return *std::launder(reinterpret_cast<host_spinlock *>(lock->storage));
}

// Before the wait: a wrong order shows even in runs where it does not come to a deadlock.
void check_order(const host_spinlock &lock)
{
    if (this_context.held_ranks >> lock.rank != 0)
        context_violated("lock order: %s (rank %u) taken while ranks %#x are held", lock.name,
                         lock.rank, this_context.held_ranks);
}

void acquire(host_spinlock &lock)
{
    if constexpr (check_context)
        check_order(lock);
    lock.mutex.lock();
    if constexpr (check_context)
        this_context.held_ranks |= 1U << lock.rank;
}

void release(host_spinlock &lock)
{
    if constexpr (check_context)
        this_context.held_ranks &= ~(1U << lock.rank);
    lock.mutex.unlock();
}

} // namespace

void spin_lock_init(spinlock_t *lock, unsigned int rank, const char *name)
{
    new (lock->storage) host_spinlock{.mutex = {}, .name = name, .rank = rank};
}

void spin_lock(spinlock_t *lock)
{
    if constexpr (check_context) {
        if (!this_context.softirq)
            context_violated("%s taken with spin_lock outside softirq context", host(lock).name);
    }
    acquire(host(lock));
}

void spin_unlock(spinlock_t *lock)
{
    release(host(lock));
}

void spin_lock_bh(spinlock_t *lock)
{
    acquire(host(lock));
}

void spin_unlock_bh(spinlock_t *lock)
{
    release(host(lock));
}
