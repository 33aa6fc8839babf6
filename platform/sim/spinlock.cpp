// SPDX-License-Identifier: GPL-2.0
//
// Locks that check their rules at every use, and give other contexts the occasion to run.
#include "platform/spinlock.h"

#include <algorithm>
#include <new>

#include "platform/sim/machine.h"
#include "platform/sim/spinlock.h"

namespace
{

using sim::context;
using sim::lock;
using sim::scheduler;
using sim::the_machine;

static_assert(sizeof(lock) <= KELM_SPINLOCK_SIZE && alignof(lock) <= KELM_STORAGE_ALIGN);

lock &lock_of(spinlock_t *storage)
{
    auto &l = *reinterpret_cast<lock *>(storage->storage);
    if (l.magic != lock::magic_number)
        sim::fatal("a lock is used before spin_lock_init");
    return l;
}

void check_order(const context &self, const lock &l)
{
    if (self.held_count == context::max_locks)
        sim::fatal("%s holds too many locks", self.name.c_str());
    for (std::size_t i = 0; i < self.held_count; ++i) {
        if (self.held[i]->rank >= l.rank)
            sim::failure("%s takes %s (rank %u) with %s (rank %u) held", self.name.c_str(), l.name,
                         l.rank, self.held[i]->name, self.held[i]->rank);
    }
}

void acquire(spinlock_t *storage, bool bh)
{
    lock &l = lock_of(storage);
    scheduler &sched = the_machine().sched;
    context &self = sched.current();
    if (!bh && self.softirq_depth == 0 && self.bh_off_depth == 0)
        sim::failure("%s takes %s where a softirq could interrupt it", self.name.c_str(), l.name);
    if (l.holder == &self)
        sim::fatal("%s takes %s again\n%s", self.name.c_str(), l.name, sched.report().c_str());
    check_order(self, l);

    sched.lock_point();
    while (l.holder != nullptr) {
        ++l.waiters;
        sched.wait(
            "a lock", [&l] { return l.holder == nullptr; }, &l);
        --l.waiters;
    }
    l.holder = &self;
    l.bh = bh;
    self.held[self.held_count++] = &l;
    self.bh_off_depth += bh ? 1 : 0;
    sched.lock_point();
}

void release(spinlock_t *storage, bool bh)
{
    lock &l = lock_of(storage);
    scheduler &sched = the_machine().sched;
    context &self = sched.current();
    if (l.holder != &self)
        sim::fatal("%s releases %s, which it does not hold\n%s", self.name.c_str(), l.name,
                   sched.report().c_str());
    if (l.bh != bh)
        sim::failure("%s: bottom halves are treated differently at lock and unlock", l.name);
    const auto end = self.held.begin() + static_cast<std::ptrdiff_t>(self.held_count);
    self.held_count =
        static_cast<std::size_t>(std::remove(self.held.begin(), end, &l) - self.held.begin());
    self.bh_off_depth -= bh ? 1 : 0;
    l.holder = nullptr;
    // A waiter goes first. The lock may be gone when we go on.
    if (l.waiters != 0)
        sched.yield();
    sched.lock_point();
}

} // namespace

void spin_lock_init(spinlock_t *storage, unsigned int rank, const char *name)
{
    new (storage->storage) lock{.magic = lock::magic_number,
                                .waiters = 0,
                                .rank = static_cast<std::uint8_t>(rank),
                                .bh = false,
                                .holder = nullptr,
                                .name = name};
}

void spin_lock(spinlock_t *lock)
{
    acquire(lock, false);
}

void spin_unlock(spinlock_t *lock)
{
    release(lock, false);
}

void spin_lock_bh(spinlock_t *lock)
{
    acquire(lock, true);
}

void spin_unlock_bh(spinlock_t *lock)
{
    release(lock, true);
}
