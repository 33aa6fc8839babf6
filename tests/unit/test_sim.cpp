// SPDX-License-Identifier: GPL-2.0
//
// The simulation: that it notices what is left behind and when the rules of locks and contexts are
// broken, that it interleaves contexts as it says, and that the seed decides.
#include <algorithm>
#include <set>

#include "platform/memory.h"
#include "platform/printk.h"
#include "platform/skbuff.h"
#include "platform/socket.h"
#include "platform/spinlock.h"
#include "platform/timer.h"
#include "sim_fixture.h"

namespace
{

using namespace sim;

// Whatever runs in a callback of the test's one timer or socket.
std::function<void()> callback;

// Reads what arrives at port 3784.
sock *open_receiver(world &w)
{
    sock *sk = nullptr;
    EXPECT_EQ(__sock_create(&w.initial(), AF_INET6, SOCK_DGRAM, 0, &sk, 1), 0);
    const auto data_ready = [](sock *ready) {
        sk_buff *skb = __skb_recv_udp(ready);
        callback();
        skb_data(skb)[3] ^= 1;
        consume_skb(skb);
    };
    sock_set_data_ready(sk, data_ready, nullptr);
    sockaddr_in6 any{};
    any.sin6_family = AF_INET6;
    any.sin6_port = htons(3784);
    EXPECT_EQ(kernel_bind(sk, &any, sizeof any), 0);
    return sk;
}

class contexts : public testing::Test
{
  protected:
    contexts()
    {
        spin_lock_init(&outer, 1, "outer");
        spin_lock_init(&inner, 2, "inner");
        timer_setup(&timer, [](timer_list *) { callback(); });
    }
    ~contexts() override { callback = nullptr; }

    // A critical section of a task, and what it does inside.
    static void locked(
        spinlock_t &lock, const std::function<void()> &work = [] {})
    {
        spin_lock_bh(&lock);
        work();
        spin_unlock_bh(&lock);
    }

    void run_in_softirq(const std::function<void()> &work)
    {
        callback = work;
        mod_timer(&timer, w.tick() + 1);
        w.advance(1);
    }

    world w{{.start = false}};
    spinlock_t outer;
    spinlock_t inner;
    timer_list timer{};
};

using contexts_death = contexts;

// Rules

TEST_F(contexts, what_a_context_may_not_do_fails_the_run)
{
    const auto may_sleep = [] { kfree(kmalloc(1, GFP_KERNEL)); };
    const auto may_not_sleep = [] { kfree(kmalloc(1, GFP_ATOMIC)); };
    const auto unordered_release = [&] {
        spin_lock(&outer);
        spin_lock(&inner);
        spin_unlock(&outer);
        spin_unlock(&inner);
    };
    const struct {
        const char *failure; // nullptr: it may
        std::function<void()> run;
    } cases[] = {
        {nullptr, may_sleep},
        {nullptr, [&] { locked(outer, may_not_sleep); }},
        {nullptr, [&] { run_in_softirq(may_not_sleep); }},
        {nullptr, [&] { run_in_softirq(unordered_release); }},
        {"GFP_KERNEL with a lock held", [&] { locked(outer, may_sleep); }},
        {"GFP_KERNEL in softirq context", [&] { run_in_softirq(may_sleep); }},
        {"takes outer (rank 1) with inner (rank 2) held",
         [&] { locked(inner, [&] { locked(outer); }); }},
        {"where a softirq could interrupt it",
         [&] {
             spin_lock(&outer);
             spin_unlock(&outer);
         }},
        {"softirq on a processor that holds a lock",
         [&] { locked(outer, [&] { run_in_softirq([] {}); }); }},
        {"del_timer_sync with a lock held",
         [&] { locked(outer, [&] { del_timer_sync(&timer); }); }},
        {"a softirq ends with a lock held", [&] { run_in_softirq([&] { spin_lock(&outer); }); }},
    };
    for (const auto &c : cases) {
        const std::vector<std::string> texts = failures_of(c.run);
        ASSERT_EQ(texts.size(), c.failure == nullptr ? 0U : 1U) << c.failure;
        EXPECT_TRUE(texts.empty() || texts[0].find(c.failure) != std::string::npos) << texts[0];
    }
    spin_unlock(&outer);
}

TEST_F(contexts_death, what_cannot_go_on_ends_the_process)
{
    EXPECT_DEATH(locked(outer, [&] { locked(outer); }), "main takes outer again");
    EXPECT_DEATH(spin_unlock_bh(&outer), "main releases outer, which it does not hold");
    EXPECT_DEATH(run_in_softirq([&] { del_timer_sync(&timer); }), "in the timer's own callback");
    spinlock_t never{};
    EXPECT_DEATH(spin_lock_bh(&never), "before spin_lock_init");

    // Each has one lock and wants the other's; the order that one of them breaks is noticed too.
    w.at_lock_point(2, [&] { locked(inner, [&] { locked(outer); }); });
    EXPECT_DEATH(failures_of([&] { locked(outer, [&] { locked(inner); }); }),
                 "deadlock\n"
                 "  main, running, wants inner, which action holds, holds outer\n"
                 "  action, wants outer, which main holds, holds inner");
}

TEST(world_end, shows_what_was_left_behind_or_spoilt)
{
    const struct {
        std::function<void(world &)> act;
        std::size_t failures;
        const char *one_of_them;
    } cases[] = {
        {[](world &) { (void)kzalloc(100, GFP_KERNEL); }, 1, "100 bytes leaked"},
        {[](world &) { (void)alloc_skb(10, GFP_KERNEL); }, 2, "bytes leaked"},
        {[](world &w) {
             sock *sk = nullptr;
             EXPECT_EQ(__sock_create(&w.initial(), AF_PACKET, SOCK_RAW, 2, &sk, 0), 0);
         },
         3, "1 sockets are still open"}, // nor can the namespace go
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
        {[](world &w) {
             callback = [] {};
             sock *sk = open_receiver(w);
             datagram tapped = arriving({});
             tapped.form = buffer_form::cloned;
             w.deliver(w.initial(), tapped);
             sock_release(sk);
         },
         1, "has been written into"},
    };
    for (const auto &c : cases) {
        const std::vector<std::string> texts = failures_of([&c] {
            world w({.start = false});
            c.act(w);
        });
        EXPECT_EQ(texts.size(), c.failures) << c.one_of_them;
        EXPECT_TRUE(texts.empty() || texts[0].find(c.one_of_them) != std::string::npos) << texts[0];
    }
}

// Interleavings

TEST_F(contexts, an_action_runs_at_its_lock_point_as_far_as_it_can)
{
    // Lock points of one critical section: 1 before it, 2 in it, 3 behind it.
    const auto order_with = [&](std::uint64_t k) {
        std::string order;
        w.at_lock_point(k, [&] {
            order += "other ";
            locked(outer, [&] { order += "other-locked "; });
        });
        order += "begin ";
        locked(outer, [&] { order += "locked "; });
        order += "end ";
        locked(inner);
        return order;
    };
    EXPECT_EQ(order_with(1), "begin other other-locked locked end ");
    EXPECT_EQ(order_with(2), "begin other locked other-locked end ");
    EXPECT_EQ(order_with(3), "begin locked other other-locked end ");
    EXPECT_EQ(order_with(4), "begin locked end other other-locked ");
    EXPECT_EQ(w.actions_left(), 0U);
}

TEST_F(contexts, releasing_a_socket_lets_its_callback_end_first)
{
    std::string order;
    callback = [&] {
        order += "callback ";
        spin_lock(&outer);
        spin_unlock(&outer);
        order += "ends ";
    };
    sock *sk = open_receiver(w);
    w.at_lock_point(2, [&] {
        order += "release ";
        sock_release(sk);
        order += "released";
    });
    EXPECT_TRUE(w.deliver(w.initial(), arriving({})));
    EXPECT_EQ(order, "callback release ends released");
}

// Who enters a critical section when, as letters.
std::string race_order(std::uint64_t seed)
{
    world w({.start = false, .seed = seed});
    spinlock_t lock;
    spin_lock_init(&lock, 1, "lock");
    std::string order;
    const auto racer = [&](char name) {
        return [&, name] {
            for (int i = 0; i < 3; ++i) {
                spin_lock_bh(&lock);
                order += name;
                spin_unlock_bh(&lock);
            }
        };
    };
    w.race({racer('a'), racer('b'), racer('c')});
    return order;
}

TEST(seed, decides_races_and_they_take_many_courses)
{
    std::set<std::string> races;
    for (std::uint64_t seed = 0; seed < 100; ++seed) {
        std::string race = race_order(seed);
        EXPECT_EQ(race, race_order(seed));
        races.insert(race);
        std::ranges::sort(race);
        EXPECT_EQ(race, "aaabbbccc");
    }
    EXPECT_GT(races.size(), 50U);
}

} // namespace
