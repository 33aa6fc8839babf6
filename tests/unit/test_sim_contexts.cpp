// SPDX-License-Identifier: GPL-2.0
//
// The simulation's contexts: interleavings at locks, waiting, kernel threads; and that it notices
// when the rules of locks and contexts are broken.
#include "sim_fixture.h"

#include "platform/kthread.h"
#include "platform/memory.h"
#include "platform/skbuff.h"
#include "platform/socket.h"
#include "platform/spinlock.h"
#include "platform/timer.h"

#include <algorithm>
#include <set>

namespace
{

using namespace sim;

// Whatever runs in a callback of the test's one timer or thread.
std::function<void()> callback;

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
    const std::function<void()> allowed[] = {
        may_sleep,
        [&] { locked(outer, may_not_sleep); },
        [&] { run_in_softirq(may_not_sleep); },
        [&] { locked(outer, [&] { locked(inner); }); },
        [&] {
            run_in_softirq([&] {
                spin_lock(&outer);
                spin_lock(&inner);
                spin_unlock(&outer);
                spin_unlock(&inner);
            });
        },
    };
    for (const auto &run : allowed)
        EXPECT_EQ(failures_of(run).size(), 0U);

    const std::pair<const char *, std::function<void()>> forbidden[] = {
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
    for (const auto &[text, run] : forbidden) {
        const std::vector<std::string> texts = failures_of(run);
        ASSERT_EQ(texts.size(), 1U) << text;
        EXPECT_NE(texts[0].find(text), std::string::npos) << texts[0];
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

TEST_F(contexts, del_timer_sync_lets_a_callback_end_first)
{
    std::string order;
    w.at_lock_point(2, [&] {
        order += "del ";
        EXPECT_EQ(del_timer_sync(&timer), 1);
        order += "deleted";
    });
    run_in_softirq([&] {
        order += "callback ";
        spin_lock(&outer);
        spin_unlock(&outer);
        order += "ends ";
        mod_timer(&timer, w.tick() + 5); // it is cancelled all the same
    });
    EXPECT_EQ(order, "callback del ends deleted");
    EXPECT_EQ(w.timers(), 0U);
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
    sock *sk = nullptr;
    ASSERT_EQ(__sock_create(&w.initial(), AF_INET6, SOCK_DGRAM, 0, &sk, 1), 0);
    sock_set_data_ready(
        sk,
        [](sock *ready) {
            callback();
            consume_skb(__skb_recv_udp(ready));
        },
        nullptr);
    sockaddr_in6 any{};
    any.sin6_family = AF_INET6;
    any.sin6_port = htons(3784);
    ASSERT_EQ(kernel_bind(sk, &any, sizeof any), 0);
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

TEST(race, is_a_function_of_the_seed_and_takes_many_courses)
{
    std::set<std::string> courses;
    for (std::uint64_t seed = 0; seed < 100; ++seed) {
        std::string order = race_order(seed);
        EXPECT_EQ(order, race_order(seed));
        courses.insert(order);
        std::ranges::sort(order);
        EXPECT_EQ(order, "aaabbbccc");
    }
    EXPECT_GT(courses.size(), 50U);
}

// Kernel threads

int run_thread(void *ticks)
{
    while (!kthread_should_stop()) {
        callback();
        schedule_timeout_interruptible(*static_cast<long *>(ticks));
    }
    return 42;
}

TEST_F(contexts, a_thread_sleeps_on_the_worlds_ticks_and_stops_when_told)
{
    std::vector<std::uint64_t> rounds;
    const std::uint64_t begin = w.tick();
    callback = [&] { rounds.push_back(w.tick() - begin); };
    long period = 25;
    task_struct *task = kthread_create_on_node(run_thread, &period, NUMA_NO_NODE, "thread");
    ASSERT_FALSE(IS_ERR(task));
    w.advance(10);
    wake_up_process(task);
    w.advance(60);
    wake_up_process(task);
    w.advance(30);
    EXPECT_EQ(kthread_stop(task), 42);
    EXPECT_EQ(rounds, (std::vector<std::uint64_t>{10, 35, 60, 70, 95}));
}

} // namespace
