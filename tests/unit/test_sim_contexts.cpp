// SPDX-License-Identifier: GPL-2.0
//
// The simulation's contexts: interleavings at locks, waiting, kernel threads; and that it notices
// when the rules of locks and contexts are broken.
#include "sim_fixture.h"

#include "platform/kthread.h"
#include "platform/memory.h"
#include "platform/sim/net.h"
#include "platform/socket.h"
#include "platform/spinlock.h"
#include "platform/timer.h"

#include <algorithm>
#include <cerrno>
#include <string>

namespace
{

using namespace sim;

// While it lives, failures of the simulation are collected instead of failing the test.
class collected_failures
{
  public:
    collected_failures()
    {
        on_failure = [this](const std::string &text) { texts.push_back(text); };
    }
    ~collected_failures() { on_failure = previous; }
    collected_failures(const collected_failures &) = delete;
    collected_failures &operator=(const collected_failures &) = delete;

    // Returns whether there has been exactly this one since the last question.
    bool was(const std::string &part)
    {
        const bool matches = texts.size() == 1 && texts[0].find(part) != std::string::npos;
        texts.clear();
        return matches;
    }
    [[nodiscard]] bool none() const { return texts.empty(); }

  private:
    std::function<void(const std::string &)> previous = on_failure;
    std::vector<std::string> texts;
};

// Whatever runs in a callback of the test's one timer or thread.
std::function<void()> callback;

void on_timer(timer_list * /*timer*/)
{
    callback();
}

class contexts : public testing::Test
{
  protected:
    contexts()
    {
        spin_lock_init(&outer, 1, "outer");
        spin_lock_init(&inner, 2, "inner");
        timer_setup(&timer, on_timer);
    }
    ~contexts() override { callback = nullptr; }

    // A critical section of a task, and what it does inside.
    template<class Work>
    static void locked(spinlock_t &lock, Work work)
    {
        spin_lock_bh(&lock);
        work();
        spin_unlock_bh(&lock);
    }
    static void locked(spinlock_t &lock)
    {
        locked(lock, [] {});
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
    collected_failures failures;
    const auto may_sleep = [] { kfree(kmalloc(1, GFP_KERNEL)); };
    const auto may_not_sleep = [] { kfree(kmalloc(1, GFP_ATOMIC)); };

    may_sleep();
    locked(outer, may_not_sleep);
    run_in_softirq(may_not_sleep);
    locked(outer, [&] { locked(inner); });
    run_in_softirq([&] {
        spin_lock(&outer);
        spin_lock(&inner);
        spin_unlock(&outer);
        spin_unlock(&inner);
    });
    EXPECT_TRUE(failures.none());

    locked(outer, may_sleep);
    EXPECT_TRUE(failures.was("GFP_KERNEL with a lock held"));
    run_in_softirq(may_sleep);
    EXPECT_TRUE(failures.was("GFP_KERNEL in softirq context"));
    locked(inner, [&] { locked(outer); });
    EXPECT_TRUE(failures.was("takes outer (rank 1) with inner (rank 2) held"));
    spin_lock(&outer);
    spin_unlock(&outer);
    EXPECT_TRUE(failures.was("where a softirq could interrupt it"));
    spin_lock_bh(&outer);
    locked(inner, [&] { EXPECT_TRUE(failures.none()); });
    run_in_softirq([] {});
    EXPECT_TRUE(failures.was("softirq on a processor that holds a lock"));
    spin_unlock_bh(&outer);
    locked(outer, [&] { del_timer_sync(&timer); });
    EXPECT_TRUE(failures.was("del_timer_sync with a lock held"));
    run_in_softirq([&] { spin_lock(&outer); });
    EXPECT_TRUE(failures.was("a softirq ends with a lock held"));
    spin_unlock(&outer);
}

TEST_F(contexts_death, what_cannot_go_on_ends_the_process)
{
    EXPECT_DEATH(locked(outer, [&] { locked(outer); }), "main takes outer again");
    EXPECT_DEATH(spin_unlock_bh(&outer), "main releases outer, which it does not hold");
    EXPECT_DEATH(run_in_softirq([&] { del_timer_sync(&timer); }), "in the timer's own callback");
    spinlock_t never{};
    EXPECT_DEATH(spin_lock_bh(&never), "before spin_lock_init");
}

TEST_F(contexts_death, a_deadlock_is_told_with_who_holds_what)
{
    // Each has one lock and wants the other's; the order that one of them breaks is noticed too.
    on_failure = [](const std::string &) {};
    w.at_lock_point(2, [&] { locked(inner, [&] { locked(outer); }); });
    EXPECT_DEATH(locked(outer, [&] { locked(inner); }),
                 "deadlock\n"
                 "  main, running, wants inner, which action holds, holds outer\n"
                 "  action, wants outer, which main holds, holds inner");
    failures->SetUp();
}

// Interleavings by choice

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

TEST_F(contexts, actions_nest)
{
    std::string order;
    w.at_lock_point(2, [&] {
        order += "a";
        w.at_lock_point(2, [&] {
            order += "b";
            locked(inner, [&] { order += "B"; }); // a has inner
        });
        locked(inner, [&] { order += "A"; });
    });
    locked(outer, [&] { order += "M"; });
    EXPECT_EQ(order, "abABM");
}

TEST_F(contexts, del_timer_sync_lets_a_callback_end_first)
{
    std::string order;
    callback = [&] {
        order += "callback ";
        spin_lock(&outer);
        spin_unlock(&outer);
        order += "ends ";
        mod_timer(&timer, w.tick() + 5); // it is cancelled all the same
    };
    mod_timer(&timer, w.tick() + 1);
    w.pass(1);
    w.at_lock_point(2, [&] { w.run_timers(); });
    locked(outer, [&] { order += "locked "; });
    EXPECT_EQ(w.actions_left(), 0U);

    order.clear();
    mod_timer(&timer, w.tick() + 1);
    w.pass(1);
    w.at_lock_point(2, [&] {
        order += "del ";
        EXPECT_EQ(del_timer_sync(&timer), 1);
        order += "deleted";
    });
    w.run_timers();
    EXPECT_EQ(order, "callback del ends deleted");
    EXPECT_EQ(w.timers(), 0U);
}

TEST_F(contexts, releasing_a_socket_lets_its_callback_end_first)
{
    net &ns = w.initial();
    sock *sk = nullptr;
    ASSERT_EQ(__sock_create(&ns, AF_INET6, SOCK_DGRAM, 0, &sk, 1), 0);
    static std::string order;
    static spinlock_t *lock = nullptr;
    order.clear();
    lock = &outer;
    sock_set_data_ready(
        sk,
        [](sock *ready) {
            order += "callback ";
            spin_lock(lock);
            spin_unlock(lock);
            consume_skb(__skb_recv_udp(ready));
            order += "ends ";
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
    EXPECT_TRUE(w.deliver(ns, arriving({})));
    EXPECT_EQ(order, "callback release ends released");
    EXPECT_FALSE(w.deliver(ns, arriving({})));
}

// Races

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
    std::vector<std::string> courses;
    for (std::uint64_t seed = 0; seed < 100; ++seed) {
        const std::string order = race_order(seed);
        EXPECT_EQ(order, race_order(seed));
        EXPECT_EQ(std::ranges::count(order, 'a'), 3);
        EXPECT_EQ(std::ranges::count(order, 'b'), 3);
        EXPECT_EQ(std::ranges::count(order, 'c'), 3);
        courses.push_back(order);
    }
    std::ranges::sort(courses);
    courses.erase(std::unique(courses.begin(), courses.end()), courses.end());
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
    callback = [&] { rounds.push_back(w.tick()); };
    long period = 25;
    task_struct *task = kthread_create_on_node(run_thread, &period, NUMA_NO_NODE, "thread");
    ASSERT_FALSE(IS_ERR(task));
    w.advance(10);
    EXPECT_TRUE(rounds.empty());
    wake_up_process(task);
    const std::uint64_t begin = w.tick();
    w.advance(60);
    EXPECT_EQ(rounds, (std::vector{begin, begin + 25, begin + 50}));
    wake_up_process(task);
    w.advance(30);
    ASSERT_EQ(rounds.size(), 5U);
    EXPECT_EQ(rounds[3], begin + 60); // woken
    EXPECT_EQ(rounds[4], begin + 85);
    EXPECT_EQ(kthread_stop(task), 42);
    EXPECT_EQ(rounds.size(), 5U);
}

TEST_F(contexts, a_thread_that_never_started_is_stopped_too)
{
    task_struct *task = kthread_create_on_node(run_thread, nullptr, NUMA_NO_NODE, "thread");
    EXPECT_EQ(kthread_stop(task), -EINTR);
    w.fail(service::thread, -EAGAIN);
    task = kthread_create_on_node(run_thread, nullptr, NUMA_NO_NODE, "thread");
    ASSERT_TRUE(IS_ERR(task));
    EXPECT_EQ(PTR_ERR(task), -EAGAIN);
}

} // namespace
