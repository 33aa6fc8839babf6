// SPDX-License-Identifier: GPL-2.0
//
// The world itself: that nothing left behind goes unnoticed, that faults hit what they are aimed
// at, that time goes its way.
#include "sim_fixture.h"

#include "platform/clock.h"
#include "platform/memory.h"
#include "platform/printk.h"
#include "platform/random.h"
#include "platform/sim/net.h"
#include "platform/skbuff.h"
#include "platform/socket.h"
#include "platform/timer.h"

#include <algorithm>
#include <array>
#include <cerrno>

namespace
{

using namespace sim;

TEST(world_end, notices_what_was_left_behind)
{
    const auto leave_socket = [](world &w, int kern) {
        sock *sk = nullptr;
        EXPECT_EQ(__sock_create(&w.initial(), AF_PACKET, SOCK_RAW, 2, &sk, kern), 0);
    };
    const struct {
        std::function<void(world &)> act;
        std::size_t failures;
        const char *one_of_them;
    } cases[] = {
        {[](world &) { (void)kmalloc(100, GFP_KERNEL); }, 1, "100 bytes leaked"},
        {[](world &) { (void)kzalloc(0, GFP_KERNEL); }, 1, "0 bytes leaked"},
        {[](world &) { (void)alloc_skb(10, GFP_KERNEL); }, 2, "bytes leaked"},
        {[&](world &w) { leave_socket(w, 1); }, 2, "bytes leaked"},
        {[&](world &w) { leave_socket(w, 0); }, 3, "bytes leaked"}, // with the namespace
        {[](world &) {
             static timer_list timer;
             timer_setup(&timer, [](timer_list *) {});
             mod_timer(&timer, 1);
         },
         1, "1 timers are still armed"},
        {[](world &) { WARN("bad %d", 1); }, 1, "kernel warning: bad 1"},
        {[](world &) { printk("no level"); }, 1, "a log line without a level: no level"},
        {[](world &w) { w.expect_warning("bad"); }, 1, "\"bad\" did not come"},
        {[](world &w) {
             w.expect_warning("bad");
             WARN("something bad");
         },
         0, ""},
    };
    for (const auto &c : cases) {
        const std::vector<std::string> texts = failures_of([&c] {
            world w({.start = false});
            c.act(w);
        });
        EXPECT_EQ(texts.size(), c.failures) << c.one_of_them;
        EXPECT_TRUE(texts.empty() || std::ranges::any_of(texts,
                                                         [&c](const std::string &text) {
                                                             return text.find(c.one_of_them) !=
                                                                    std::string::npos;
                                                         }))
            << texts[0];
    }
}

TEST(faults, hit_the_nth_use_and_as_many_as_planned)
{
    world w({.start = false});
    w.fail(service::allocation, -ENOMEM, 2, 2);
    for (const bool works : {true, false, false, true}) {
        void *memory = kmalloc(1, GFP_ATOMIC);
        EXPECT_EQ(memory != nullptr, works);
        kfree(memory);
    }
    EXPECT_EQ(w.uses(service::allocation), 4U);
    EXPECT_EQ(w.failed(service::allocation), 2U);
}

TEST(datagrams, show_a_packet_tap_that_is_written_into)
{
    const auto texts = failures_of([] {
        world w({.start = false});
        sock *sk = nullptr;
        ASSERT_EQ(__sock_create(&w.initial(), AF_INET6, SOCK_DGRAM, 0, &sk, 1), 0);
        sock_set_data_ready(
            sk,
            [](sock *ready) {
                sk_buff *skb = __skb_recv_udp(ready);
                skb_data(skb)[3] ^= 1;
                consume_skb(skb);
            },
            nullptr);
        sockaddr_in6 any{};
        any.sin6_family = AF_INET6;
        any.sin6_port = htons(3784);
        ASSERT_EQ(kernel_bind(sk, &any, sizeof any), 0);
        datagram d = arriving({});
        d.form = buffer_form::cloned;
        w.deliver(w.initial(), d);
        sock_release(sk);
    });
    ASSERT_EQ(texts.size(), 1U);
    EXPECT_NE(texts[0].find("has been written into"), std::string::npos);
}

// Time

struct noting_timer {
    timer_list timer{};
    int number = 0;
};

// Numbers of the timers in the order in which they expired, and when.
std::vector<std::pair<int, std::uint64_t>> expired;
world *timer_world = nullptr;

std::vector<std::pair<int, std::uint64_t>> expiries(const world_options &options)
{
    world w(options);
    timer_world = &w;
    expired.clear();
    std::array<noting_timer, 6> timers;
    const std::uint64_t begin = w.tick();
    for (int number = 0; noting_timer & noting : timers) {
        timer_setup(&noting.timer, [](timer_list *timer) {
            const auto *self = reinterpret_cast<const noting_timer *>(timer);
            expired.emplace_back(self->number, timer_world->tick());
        });
        mod_timer(&noting.timer, begin + (number < 4 ? 7U : 9U));
        noting.number = number++;
    }
    w.advance(20);
    for (auto &[number, tick] : expired)
        tick -= begin;
    return expired;
}

TEST(time, timers_run_at_their_tick_and_ties_are_broken_by_the_seed)
{
    using course = std::vector<std::pair<int, std::uint64_t>>;
    const course in_order{{0, 7}, {1, 7}, {2, 7}, {3, 7}, {4, 9}, {5, 9}};
    EXPECT_EQ(expiries({.start = false, .shuffle_ties = false}), in_order);

    bool differs = false;
    for (std::uint64_t seed = 0; seed < 10; ++seed) {
        course shuffled = expiries({.start = false, .seed = seed});
        EXPECT_EQ(shuffled, expiries({.start = false, .seed = seed}));
        differs = differs || shuffled != in_order;
        EXPECT_TRUE(std::ranges::is_sorted(shuffled, {}, &course::value_type::second));
        std::ranges::sort(shuffled);
        EXPECT_EQ(shuffled, in_order);
    }
    EXPECT_TRUE(differs);
}

TEST(time, moves_when_told_and_not_otherwise)
{
    world w({.start = false});
    static int runs;
    runs = 0;
    timer_list timer{};
    timer_setup(&timer, [](timer_list *) { ++runs; });
    const std::uint64_t tick = w.tick();
    const std::int64_t wall = w.wall_ns();
    const std::int64_t raw = w.raw_ns();
    EXPECT_NE(tick, 0U);

    mod_timer(&timer, tick + 3);
    w.pass(10); // late
    EXPECT_EQ(runs, 0);
    mod_timer(&timer, tick + 10); // for now: not before the next tick
    w.run_timers();
    EXPECT_EQ(runs, 0);
    w.advance(1);
    EXPECT_EQ(runs, 1);
    w.move_clocks(500);
    w.step_wall_clock(-1'000'000'000);
    EXPECT_EQ(get_jiffies_64(), tick + 11);
    timespec64 ts{};
    ktime_get_real_ts64(&ts);
    EXPECT_EQ(ts.tv_sec * 1'000'000'000 + ts.tv_nsec, wall + 11'000'500 - 1'000'000'000);
    ktime_get_raw_ts64(&ts);
    EXPECT_EQ(ts.tv_sec * 1'000'000'000 + ts.tv_nsec, raw + 11'000'500);
}

TEST(random, is_scripted_first_and_the_seeds_then)
{
    const auto three = [](std::uint64_t seed) {
        world w({.start = false, .seed = seed});
        w.next_random(7);
        EXPECT_EQ(prandom_u32(), 7U);
        return std::array{prandom_u32(), prandom_u32(), prandom_u32()};
    };
    EXPECT_EQ(three(1), three(1));
    EXPECT_NE(three(1), three(2));
}

} // namespace
