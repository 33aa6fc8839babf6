// SPDX-License-Identifier: GPL-2.0
//
// kelmd's softirq thread: what runs before what, and what waits for what. Callbacks hold the
// thread up on purpose, as a loaded machine does; nothing here depends on how long anything takes.
#include "platform/clock.h"
#include "platform/timer.h"
#include "platform/user/fd.h"
#include "platform/user/softirq.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <sys/eventfd.h>
#include <thread>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using kelmd::unique_fd;

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
    const unique_fd event_{eventfd(0, EFD_NONBLOCK)};
    const std::function<void()> callback_;
};

// Started with the first test and never stopped before the end, as in kelmd.
class Softirq : public testing::Test
{
  protected:
    static void SetUpTestSuite() { kelmd::start_softirq(false); }
    static void TearDownTestSuite() { kelmd::stop_softirq(); }
};

TEST_F(Softirq, WhatArrivedBeforeATimerWasDueIsHandledBeforeTheTimer)
{
    std::vector<std::string> order; // the softirq thread's until done
    std::atomic<bool> done = false;
    test_receiver peer([&] { order.push_back("datagram"); });
    ASSERT_EQ(kelmd::add_receiver(peer), 0);
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
    kelmd::remove_receiver(peer);
    EXPECT_EQ(order, (std::vector<std::string>{"datagram", "timeout"}));
}

TEST_F(Softirq, ATimerNeverFiresBeforeItsTick)
{
    for (const unsigned long distance : {0UL, 1UL, 2UL, 63UL, 64UL, 65UL, 300UL}) {
        std::atomic<std::uint64_t> fired_at = 0;
        test_timer timer([&] { fired_at = get_jiffies_64(); });
        const std::uint64_t due = get_jiffies_64() + distance;
        EXPECT_EQ(mod_timer(&timer.timer, due), 0);
        spin_until([&] { return fired_at != 0; });
        EXPECT_GE(fired_at, due);
        EXPECT_FALSE(timer_pending(&timer.timer));
        EXPECT_EQ(timer_expires(&timer.timer), due);
    }
}

TEST_F(Softirq, AnEarlierTimerEndsASleepForALaterOne)
{
    std::atomic<bool> fired = false;
    test_timer later([] { ADD_FAILURE() << "an hour is over"; });
    mod_timer(&later.timer, get_jiffies_64() + 3'600'000);
    std::this_thread::sleep_for(20ms); // the thread sleeps by now, or the test shows less
    test_timer earlier([&] { fired = true; });
    mod_timer(&earlier.timer, get_jiffies_64() + 5);
    spin_until([&] { return fired.load(); });
    EXPECT_EQ(del_timer(&later.timer), 1);
    EXPECT_EQ(del_timer(&later.timer), 0);
}

TEST_F(Softirq, ATimerArmedForNowInItsOwnCallbackLetsOthersRun)
{
    std::atomic<int> rounds = 0;
    std::atomic<bool> stop = false;
    std::atomic<bool> other_ran = false;
    test_timer *itself = nullptr;
    test_timer restless([&] {
        ++rounds;
        if (!stop)
            mod_timer(&itself->timer, get_jiffies_64());
    });
    itself = &restless;
    test_timer other([&] { other_ran = true; });
    mod_timer(&restless.timer, get_jiffies_64());
    spin_until([&] { return rounds > 3; });
    mod_timer(&other.timer, get_jiffies_64() + 5);
    spin_until([&] { return other_ran.load(); });
    stop = true;
}

TEST_F(Softirq, DelTimerSyncWaitsForTheCallback)
{
    std::atomic<bool> entered = false;
    std::atomic<bool> left = false;
    test_timer timer([&] {
        entered = true;
        std::this_thread::sleep_for(50ms);
        left = true;
    });
    mod_timer(&timer.timer, get_jiffies_64());
    spin_until([&] { return entered.load(); });
    EXPECT_EQ(del_timer(&timer.timer), 0); // not pending from before its callback
    EXPECT_EQ(del_timer_sync(&timer.timer), 0);
    EXPECT_TRUE(left);
}

TEST_F(Softirq, RemovingAReceiverWaitsForItsDrain)
{
    std::atomic<bool> entered = false;
    std::atomic<bool> left = false;
    test_receiver receiver([&] {
        EXPECT_FALSE(left) << "drained after its removal";
        entered = true;
        std::this_thread::sleep_for(50ms);
        left = true;
    });
    ASSERT_EQ(kelmd::add_receiver(receiver), 0);
    receiver.poke();
    spin_until([&] { return entered.load(); });
    receiver.poke();
    kelmd::remove_receiver(receiver);
    EXPECT_TRUE(left);
    kelmd::remove_receiver(receiver); // once more does no harm
}

} // namespace
