// SPDX-License-Identifier: GPL-2.0
#include "platform/user/timer.h"

#include <algorithm>
#include <cstddef>
#include <new>
#include <sys/timerfd.h>

#include "platform/clock.h"
#include "platform/timer.h"
#include "platform/user/clock.h"
#include "platform/user/context.h"
#include "platform/user/host.h"
#include "platform/user/system_call.h"

namespace kelmd
{

namespace
{

using hosted::timer_wheel;
using hosted::wheel_timer;

// The clock rings at least this often, so that no tick is too far ahead to be expressed in
// nanoseconds.
constexpr std::uint64_t longest_sleep = 3'600'000;

wheel_timer &native(timer_list *timer)
{
    return *std::launder(reinterpret_cast<wheel_timer *>(timer->storage));
}

const wheel_timer &native(const timer_list *timer)
{
    return *std::launder(reinterpret_cast<const wheel_timer *>(timer->storage));
}

static_assert(offsetof(timer_list, storage) == 0);

} // namespace

timer_base::timer_base()
    : wheel_(get_jiffies_64()),
      clock_(checked("timerfd_create", timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)))
{
}

bool timer_base::arm(wheel_timer &timer, std::uint64_t expires)
{
    const guard held(lock_);
    const bool was_pending = wheel_.arm(timer, expires, get_jiffies_64());
    // The softirq thread sets the clock for itself before it sleeps; a clock that has rung keeps
    // it awake until then.
    if (timer.due < clock_set_to_)
        set_clock(timer.due);
    return was_pending;
}

bool timer_base::cancel(wheel_timer &timer)
{
    const guard held(lock_);
    return wheel_.cancel(timer);
}

bool timer_base::cancel_and_wait(wheel_timer &timer)
{
    guard held(lock_);
    ++waiters_;
    ran_.wait(held, [&] { return running_ != &timer; });
    --waiters_;
    return wheel_.cancel(timer);
}

bool timer_base::is_pending(const wheel_timer &timer)
{
    const guard held(lock_);
    return timer.pending();
}

std::uint64_t timer_base::last_expiry(const wheel_timer &timer)
{
    const guard held(lock_);
    return timer.expires;
}

void timer_base::set_clock(std::uint64_t tick)
{
    itimerspec when{};
    when.it_value = tick_start(tick);
    timerfd_settime(clock_.get(), TFD_TIMER_ABSTIME, &when, nullptr);
    clock_set_to_ = tick;
}

void timer_base::ring()
{
    const guard held(lock_);
    itimerspec now{};
    now.it_value.tv_nsec = 1;
    timerfd_settime(clock_.get(), 0, &now, nullptr);
    clock_set_to_ = 0;
}

bool timer_base::prepare_sleep(std::uint64_t now)
{
    const guard held(lock_);
    const std::uint64_t next = std::min(wheel_.next_event(), now + longest_sleep);
    if (next <= now)
        return false;
    // A clock set for the past has rung.
    if (next < clock_set_to_ || clock_set_to_ <= now)
        set_clock(next);
    return true;
}

void timer_base::run(std::uint64_t up_to)
{
    guard held(lock_);
    while (wheel_timer *timer = wheel_.pop_due(up_to)) {
        running_ = timer;
        held.unlock();
        timer->function(reinterpret_cast<timer_list *>(timer)); // may free the timer
        held.lock();
        running_ = nullptr;
        if (waiters_ != 0)
            ran_.wake_all();
    }
}

} // namespace kelmd

// Services

using namespace kelmd;

void timer_setup(timer_list *timer, timer_function function)
{
    auto *const made = new (timer->storage) wheel_timer{};
    made->function = function;
}

int mod_timer(timer_list *timer, unsigned long expires)
{
    return the_host().timers.arm(native(timer), expires);
}

int del_timer(timer_list *timer)
{
    return the_host().timers.cancel(native(timer));
}

int del_timer_sync(timer_list *timer)
{
    assert_may_sleep(__func__);
    return the_host().timers.cancel_and_wait(native(timer));
}

bool timer_pending(const timer_list *timer)
{
    return the_host().timers.is_pending(native(timer));
}

unsigned long timer_expires(const timer_list *timer)
{
    return the_host().timers.last_expiry(native(timer));
}
