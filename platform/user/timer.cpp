// SPDX-License-Identifier: GPL-2.0
//
// Timers: the wheel, its lock, and the clock that ends the softirq thread's sleep. Callbacks run
// on the softirq thread, one at a time, without the lock.
#include "platform/timer.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <sys/timerfd.h>

#include "platform/clock.h"
#include "platform/hosted/timer_wheel.h"
#include "platform/hosted/wait.h"
#include "platform/user/context.h"
#include "platform/user/fd.h"
#include "platform/user/system_call.h"
#include "platform/user/tick.h"
#include "platform/user/timer.h"

namespace kelmd
{

namespace
{

using hosted::timer_wheel;
using hosted::wheel_timer;

// The clock rings at least this often, so that no tick is too far ahead to be told in
// nanoseconds.
constexpr std::uint64_t longest_sleep = 3'600'000;

struct timer_base {
    hosted::mutex lock; // guards everything here, and every timer
    timer_wheel wheel{get_jiffies_64()};
    const wheel_timer *running = nullptr;
    int waiters = 0; // threads that wait for running to change
    hosted::wait_queue ran;
    unique_fd clock{
        checked("timerfd_create", timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK))};
    std::uint64_t clock_set_to = timer_wheel::NEVER;
};

using guard_lock = std::unique_lock<hosted::mutex>;

timer_base &base()
{
    static timer_base timers;
    return timers;
}

void set_clock(timer_base &timers, std::uint64_t tick)
{
    itimerspec when{};
    when.it_value = tick_start(tick);
    timerfd_settime(timers.clock.get(), TFD_TIMER_ABSTIME, &when, nullptr);
    timers.clock_set_to = tick;
}

wheel_timer &host(timer_list *timer)
{
    return *std::launder(reinterpret_cast<wheel_timer *>(timer->storage));
}

const wheel_timer &host(const timer_list *timer)
{
    return *std::launder(reinterpret_cast<const wheel_timer *>(timer->storage));
}

static_assert(offsetof(timer_list, storage) == 0);

} // namespace

int timer_clock_fd()
{
    return base().clock.get();
}

void ring_timer_clock()
{
    timer_base &timers = base();
    const guard_lock guard(timers.lock);
    itimerspec now{};
    now.it_value.tv_nsec = 1;
    timerfd_settime(timers.clock.get(), 0, &now, nullptr);
    timers.clock_set_to = 0;
}

bool sleep_until_timers(std::uint64_t now)
{
    timer_base &timers = base();
    const guard_lock guard(timers.lock);
    const std::uint64_t next = std::min(timers.wheel.next_event(), now + longest_sleep);
    if (next <= now)
        return false;
    // A clock set for the past has rung.
    if (next < timers.clock_set_to || timers.clock_set_to <= now)
        set_clock(timers, next);
    return true;
}

void run_timers(std::uint64_t up_to)
{
    timer_base &timers = base();
    guard_lock guard(timers.lock);
    while (wheel_timer *timer = timers.wheel.pop_due(up_to)) {
        timers.running = timer;
        guard.unlock();
        timer->function(reinterpret_cast<timer_list *>(timer)); // may free the timer
        guard.lock();
        timers.running = nullptr;
        if (timers.waiters != 0)
            timers.ran.wake_all();
    }
}

} // namespace kelmd

using namespace kelmd;

void timer_setup(timer_list *timer, timer_function function)
{
    auto *const made = new (timer->storage) wheel_timer{};
    made->function = function;
}

int mod_timer(timer_list *timer, unsigned long expires)
{
    timer_base &timers = base();
    const guard_lock guard(timers.lock);
    const bool was_pending = timers.wheel.arm(host(timer), expires, get_jiffies_64());
    // The softirq thread sets the clock for itself before it sleeps; a clock that has rung keeps
    // it awake until then.
    if (host(timer).due < timers.clock_set_to)
        set_clock(timers, host(timer).due);
    return was_pending;
}

int del_timer(timer_list *timer)
{
    timer_base &timers = base();
    const guard_lock guard(timers.lock);
    return timers.wheel.cancel(host(timer));
}

int del_timer_sync(timer_list *timer)
{
    assert_may_sleep(__func__);
    timer_base &timers = base();
    guard_lock guard(timers.lock);
    ++timers.waiters;
    timers.ran.wait(guard, [&] { return timers.running != &host(timer); });
    --timers.waiters;
    return timers.wheel.cancel(host(timer));
}

bool timer_pending(const timer_list *timer)
{
    timer_base &timers = base();
    const guard_lock guard(timers.lock);
    return host(timer).pending();
}

unsigned long timer_expires(const timer_list *timer)
{
    timer_base &timers = base();
    const guard_lock guard(timers.lock);
    return host(timer).expires;
}
