// SPDX-License-Identifier: GPL-2.0
//
// kelmd's softirq thread: what runs before what, and what waits for what. Callbacks hold the
// thread up on purpose, as a loaded machine does; nothing here depends on how long anything takes.
#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/timer.h"
#include "platform/user/host.h"
#include "platform/user/softirq.h"
#include "shared/unique_fd.h"

namespace
{

using namespace std::chrono_literals;
using kelm::unique_fd;

void spin_until(const std::function<bool()> &done)
{
    while (!done())
        std::this_thread::sleep_for(1ms);
}

// A timer whose callback is any function.
class test_timer
{
  public:
    explicit test_timer(std::function<void()> callback) : callback_(std::move(callback))
    {
        timer_setup(&timer,
                    [](timer_list *fired) { reinterpret_cast<test_timer *>(fired)->callback_(); });
    }
    ~test_timer() { del_timer_sync(&timer); }

    timer_list timer{}; // first, so that the callback finds the object

  private:
    std::function<void()> callback_;
};

// Something that receives when it is poked.
class test_receiver : public kelmd::receiver
{
  public:
    explicit test_receiver(std::function<void()> callback) : callback_(std::move(callback)) {}

    void poke() const { eventfd_write(event_.get(), 1); }

    int receive_fd() const override { return event_.get(); }
    void drain() override
    {
        eventfd_t ignored = 0;
        eventfd_read(event_.get(), &ignored);
        callback_();
    }

  private:
    const kelm::unique_fd event_{eventfd(0, EFD_NONBLOCK)};
    const std::function<void()> callback_;
};

class softirq : public testing::Test
{
  protected:
    softirq() { host.softirq.start(false); }

    kelmd::host host{{}};
    kelmd::softirq_thread &thread = host.softirq;
};

TEST_F(softirq, handles_what_arrived_before_a_timer_was_due_before_the_timer)
{
    std::vector<std::string> order; // the softirq thread's until done
    std::atomic<bool> done = false;
    test_receiver peer([&] { order.push_back("datagram"); });
    ASSERT_EQ(thread.add(peer), 0);
    test_timer detection([&] {
        order.push_back("timeout");
        done = true;
    });
    // While the thread is held up, a datagram arrives and then a timer falls due.
    test_timer hold_up([&] {
        const std::uint64_t now = get_jiffies_64();
        mod_timer(&detection.timer, now + 3);
        peer.poke();
        while (get_jiffies_64() < now + 20) {
        }
    });
    mod_timer(&hold_up.timer, get_jiffies_64());
    spin_until([&] { return done.load(); });
    thread.remove(peer);
    EXPECT_EQ(order, (std::vector<std::string>{"datagram", "timeout"}));
}

// Also while the thread sleeps for a later timer, and one is armed for now in its own callback.
TEST_F(softirq, fires_a_timer_and_never_before_its_tick)
{
    test_timer later([] { ADD_FAILURE() << "an hour is over"; });
    mod_timer(&later.timer, get_jiffies_64() + 3'600'000);
    std::atomic<bool> stop = true;
    test_timer restless([&] {
        if (!stop)
            mod_timer(&restless.timer, get_jiffies_64());
    });
    for (const unsigned long distance : {0UL, 1UL, 2UL, 63UL, 64UL, 65UL, 300UL}) {
        std::atomic<std::uint64_t> fired_at = 0;
        test_timer timer([&] { fired_at = get_jiffies_64(); });
        const std::uint64_t due = get_jiffies_64() + distance;
        EXPECT_EQ(mod_timer(&timer.timer, due), 0);
        spin_until([&] { return fired_at != 0; });
        EXPECT_GE(fired_at, due);
        EXPECT_FALSE(timer_pending(&timer.timer));
        EXPECT_EQ(timer_expires(&timer.timer), due);
        stop = !stop;
        mod_timer(&restless.timer, get_jiffies_64());
    }
    stop = true;
    EXPECT_EQ(del_timer(&later.timer), 1);
    EXPECT_EQ(del_timer(&later.timer), 0);
}

// What takes 50 ms, and tells whether it has begun and whether it runs.
struct long_work {
    std::atomic<bool> entered = false;
    std::atomic<bool> running = false;
    std::atomic<bool> removed = false;

    void operator()()
    {
        running = true;
        entered = true;
        std::this_thread::sleep_for(50ms);
        EXPECT_FALSE(removed) << "it runs after its removal";
        running = false;
    }
};

TEST_F(softirq, removal_waits_for_a_callback_that_runs)
{
    long_work work;
    test_timer timer([&] { work(); });
    mod_timer(&timer.timer, get_jiffies_64());
    spin_until([&] { return work.entered.load(); });
    EXPECT_EQ(del_timer(&timer.timer), 0); // not pending from before its callback
    EXPECT_EQ(del_timer_sync(&timer.timer), 0);
    EXPECT_FALSE(work.running);

    long_work drain;
    test_receiver receiver([&] { drain(); });
    ASSERT_EQ(thread.add(receiver), 0);
    receiver.poke();
    spin_until([&] { return drain.entered.load(); });
    receiver.poke();
    thread.remove(receiver);
    drain.removed = true;
    EXPECT_FALSE(drain.running);
    thread.remove(receiver);              // once more does no harm
    std::atomic<bool> next_round = false; // in which what has been poked would be drained
    test_timer timer_of_next_round([&] { next_round = true; });
    mod_timer(&timer_of_next_round.timer, get_jiffies_64());
    spin_until([&] { return next_round.load(); });
}

} // namespace
