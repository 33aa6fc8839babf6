// SPDX-License-Identifier: GPL-2.0
//
// Lock guards. The type says in which context the lock is taken.
#pragma once

#include "platform/spinlock.h"

template<void (*Lock)(spinlock_t *), void (*Unlock)(spinlock_t *)>
class [[nodiscard]] basic_guard
{
  public:
    explicit basic_guard(spinlock_t &lock) : lock_(&lock) { Lock(lock_); }
    ~basic_guard() { unlock(); }
    basic_guard(const basic_guard &) = delete;
    basic_guard &operator=(const basic_guard &) = delete;

    // Releases the lock before the end of the scope; at most once has an effect.
    void unlock()
    {
        if (lock_ != nullptr)
            Unlock(lock_);
        lock_ = nullptr;
    }

  private:
    spinlock_t *lock_;
};

// For code that a task may run: keeps bottom halves off this processor meanwhile.
using bh_guard = basic_guard<spin_lock_bh, spin_unlock_bh>;

// For code that only softirqs run.
using softirq_guard = basic_guard<spin_lock, spin_unlock>;
