// SPDX-License-Identifier: GPL-2.0
//
// Timers: the wheel, its lock, and the clock that ends the softirq thread's sleep. Callbacks run on
// the softirq thread, one at a time, without the lock.
#pragma once

#include <cstdint>
#include <mutex>

#include "platform/hosted/mutex.h"
#include "platform/hosted/timer_wheel.h"
#include "platform/hosted/wait.h"
#include "shared/unique_fd.h"

namespace kelmd
{

class timer_base
{
  public:
    timer_base(); // throws std::system_error
    timer_base(const timer_base &) = delete;
    timer_base &operator=(const timer_base &) = delete;

    // As the services mod_timer, del_timer, del_timer_sync, timer_pending and timer_expires.
    bool arm(hosted::wheel_timer &timer, std::uint64_t expires);
    bool cancel(hosted::wheel_timer &timer);
    bool cancel_and_wait(hosted::wheel_timer &timer);
    [[nodiscard]] bool is_pending(const hosted::wheel_timer &timer);
    [[nodiscard]] std::uint64_t last_expiry(const hosted::wheel_timer &timer);

    // A descriptor that becomes readable (edge-triggered) when timers may be due; see
    // prepare_sleep.
    [[nodiscard]] int clock_fd() const { return clock_.get(); }

    // Makes clock_fd readable now. Any thread.
    void ring();

    // Prepares a sleep that begins at tick now. False if a timer is due already. Else the clock
    // rings at the tick of the next timer, and earlier if another thread arms an earlier one
    // meanwhile. The softirq thread alone.
    [[nodiscard]] bool prepare_sleep(std::uint64_t now);

    // Calls the callbacks of all timers due at that tick or before; not those that are armed
    // meanwhile. The softirq thread alone.
    void run(std::uint64_t up_to);

  private:
    using guard = std::unique_lock<hosted::mutex>;

    void set_clock(std::uint64_t tick);

    hosted::mutex lock_; // guards everything below, and every timer
    hosted::timer_wheel wheel_;
    const hosted::wheel_timer *running_ = nullptr;
    int waiters_ = 0; // threads that wait for running_ to change
    hosted::wait_queue ran_;
    const kelm::unique_fd clock_;
    std::uint64_t clock_set_to_ = hosted::timer_wheel::never;
};

} // namespace kelmd
