// SPDX-License-Identifier: GPL-2.0
//
// The timer wheel against a model that is a sorted list.
#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "platform/hosted/timer_wheel.h"

namespace
{

using hosted::timer_wheel;
using hosted::wheel_timer;

// Timers by due tick.
struct model {
    std::multimap<std::uint64_t, wheel_timer *> pending;

    bool cancel(wheel_timer *timer)
    {
        return std::erase_if(pending, [=](const auto &entry) { return entry.second == timer; }) !=
               0;
    }

    bool arm(wheel_timer *timer, std::uint64_t expires, std::uint64_t now)
    {
        const bool was_pending = cancel(timer);
        pending.emplace(std::max(expires, now + 1), timer);
        return was_pending;
    }

    [[nodiscard]] std::uint64_t first_tick() const
    {
        return pending.empty() ? timer_wheel::never : pending.begin()->first;
    }

    // Whether the timer, null for none, is what a wheel may give: one of the first tick.
    bool pop_due(wheel_timer *timer, std::uint64_t up_to)
    {
        if (pending.empty() || first_tick() > up_to)
            return timer == nullptr;
        const auto [first, last] = pending.equal_range(first_tick());
        const auto found =
            std::find_if(first, last, [=](const auto &entry) { return entry.second == timer; });
        if (found == last)
            return false;
        pending.erase(found);
        return true;
    }
};

void compare_with_a_sorted_list(unsigned int seed)
{
    std::mt19937_64 random(seed);
    const auto below = [&random](std::uint64_t n) { return random() % n; };
    std::uint64_t now = 1 + (random() >> below(64)) / 2;
    timer_wheel wheel(now);
    model expected;
    std::vector<wheel_timer> timers(40);

    for (int step = 0; step < 4000; ++step) {
        wheel_timer *timer = &timers[below(timers.size())];
        const std::uint64_t kind = below(10);
        if (kind < 6) {
            // Every distance from the past to the far end of 64 bits; ties are frequent.
            const std::uint64_t distance = random() >> below(64);
            std::uint64_t expires = below(8) == 0
                                        ? now - std::min(now, distance)
                                        : now + std::min(distance, timer_wheel::never - 1 - now);
            if (below(4) == 0) // where far timers become near ones
                expires &= ~std::uint64_t{1023};
            ASSERT_EQ(wheel.arm(*timer, expires, now), expected.arm(timer, expires, now));
            ASSERT_EQ(timer->expires, expires);
        } else if (kind < 8) {
            ASSERT_EQ(wheel.cancel(*timer), expected.cancel(timer));
        } else {
            const std::uint64_t jump = random() >> (24 + below(40));
            now = std::min(now + jump, timer_wheel::never / 2);
            for (;;) {
                ASSERT_LE(wheel.next_event(), expected.first_tick());
                wheel_timer *due = wheel.pop_due(now, below(4));
                ASSERT_TRUE(expected.pop_due(due, now));
                if (due == nullptr)
                    break;
                ASSERT_FALSE(due->pending());
                // What a callback does: arm itself or another timer, sometimes for now or the past.
                if (below(2) == 0) {
                    wheel_timer *armed = below(2) == 0 ? due : &timers[below(timers.size())];
                    const std::uint64_t again = now - below(2) + below(3);
                    ASSERT_EQ(wheel.arm(*armed, again, now), expected.arm(armed, again, now));
                }
            }
        }
        ASSERT_EQ(wheel.size(), expected.pending.size());
    }
}

TEST(timer_wheel, does_what_a_sorted_list_does)
{
    for (unsigned int seed = 1; seed <= 30; ++seed) {
        SCOPED_TRACE(seed);
        ASSERT_NO_FATAL_FAILURE(compare_with_a_sorted_list(seed));
    }
}

TEST(timer_wheel, choice_reaches_each_timer_of_a_tick_and_none_of_another)
{
    for (std::uint64_t choice = 0; choice < 6; ++choice) {
        timer_wheel wheel(1);
        std::vector<wheel_timer> timers(4);
        for (std::size_t i = 0; i < timers.size(); ++i)
            wheel.arm(timers[i], i < 3 ? 5 : 6, 1);
        EXPECT_EQ(wheel.pop_due(6, choice), &timers[choice % 3]);
    }
}

} // namespace
