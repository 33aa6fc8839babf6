// SPDX-License-Identifier: GPL-2.0
#include "platform/timer.h"

#include <new>
#include <utility>

#include "platform/sim/machine.h"

namespace
{

using hosted::wheel_timer;

wheel_timer &wheel_timer_of(timer_list *timer)
{
    return *reinterpret_cast<wheel_timer *>(timer->storage);
}

const wheel_timer &wheel_timer_of(const timer_list *timer)
{
    return *reinterpret_cast<const wheel_timer *>(timer->storage);
}

bool runs_elsewhere(const timer_list *timer)
{
    sim::scheduler &sched = sim::the_machine().sched;
    for (const auto &each : sched.all()) {
        if (each.get() != &sched.current() && each->running_timer == timer)
            return true;
    }
    return false;
}

} // namespace

void timer_setup(timer_list *timer, timer_function function)
{
    auto *fresh = new (timer->storage) wheel_timer{};
    fresh->function = function;
}

int mod_timer(timer_list *timer, unsigned long expires)
{
    sim::machine &s = sim::the_machine();
    wheel_timer &wheel_timer = wheel_timer_of(timer);
    if (wheel_timer.function == nullptr)
        sim::fatal("a timer is armed before timer_setup");
    return s.wheel.arm(wheel_timer, expires, s.clock.tick) ? 1 : 0;
}

int del_timer(timer_list *timer)
{
    return sim::the_machine().wheel.cancel(wheel_timer_of(timer)) ? 1 : 0;
}

int del_timer_sync(timer_list *timer)
{
    sim::machine &s = sim::the_machine();
    s.expect_may_sleep("del_timer_sync");
    if (s.sched.current().running_timer == timer)
        sim::fatal("del_timer_sync in the timer's own callback");
    // The callback that is waited for may arm the timer again.
    int was_pending = 0;
    for (;;) {
        was_pending |= del_timer(timer);
        if (!runs_elsewhere(timer))
            return was_pending;
        s.sched.wait("a timer's callback", [timer] { return !runs_elsewhere(timer); });
    }
}

bool timer_pending(const timer_list *timer)
{
    return wheel_timer_of(timer).pending();
}

unsigned long timer_expires(const timer_list *timer)
{
    return wheel_timer_of(timer).expires;
}

namespace sim
{

void machine::run_timers()
{
    context &self = sched.current();
    const std::uint64_t now = clock.tick;
    for (;;) {
        const std::uint64_t choice = options.shuffle_ties ? tie_breaker.next() : 0;
        wheel_timer *due = wheel.pop_due(now, choice);
        if (due == nullptr)
            return;
        // The timer may not outlive its callback.
        auto *timer = reinterpret_cast<timer_list *>(due);
        const timer_list *outer = std::exchange(self.running_timer, timer);
        {
            const softirq_scope softirq;
            due->function(timer);
        }
        self.running_timer = outer;
    }
}

} // namespace sim
