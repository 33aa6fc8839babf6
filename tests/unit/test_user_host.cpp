// SPDX-License-Identifier: GPL-2.0
//
// kelmd's log, kernel threads and check of the lock order.
#include "platform/kthread.h"
#include "platform/spinlock.h"
#include "platform/user/context.h"
#include "platform/user/fd.h"
#include "platform/user/log.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

using namespace kelmd;
using namespace std::chrono_literals;

// Log

class Log : public testing::Test
{
  protected:
    Log()
    {
        std::array<int, 2> ends{};
        if (pipe(ends.data()) != 0)
            std::abort();
        reader = unique_fd(ends[0]);
        writer = unique_fd(ends[1]);
    }

    // All lines up to the end, without their time stamps.
    std::vector<std::string> lines()
    {
        writer = unique_fd();
        std::string text;
        std::array<char, 4096> chunk{};
        ssize_t len = 0;
        while ((len = ::read(reader.get(), chunk.data(), chunk.size())) > 0)
            text.append(chunk.data(), static_cast<std::size_t>(len));
        std::vector<std::string> result;
        std::istringstream stream(text);
        for (std::string line; std::getline(stream, line);)
            result.push_back(line.substr(line.find(' ') + 1));
        return result;
    }

    unique_fd reader;
    unique_fd writer;
};

TEST_F(Log, WritesEveryLineInOrderAndCutsLongOnes)
{
    {
        log_ring log(writer.get(), 100);
        log.append("before the thread runs");
        log.start();
        log.append(std::string(2 * log_ring::max_line, 'x'));
        log.append("");
        log.stop(10s);
    }
    EXPECT_EQ(lines(), (std::vector<std::string>{"before the thread runs",
                                                 std::string(log_ring::max_line, 'x'), ""}));
}

TEST_F(Log, CountsWhatAFullRingDrops)
{
    {
        log_ring log(writer.get(), 3);
        for (const char *line : {"1", "2", "3", "4", "5"})
            log.append(line);
        log.start();
        log.stop(10s);
    }
    const auto written = lines();
    ASSERT_EQ(written.size(), 4U);
    EXPECT_EQ(written[2], "3");
    EXPECT_TRUE(written[3].starts_with("kelmd: 2 log lines were dropped here")) << written[3];
}

TEST_F(Log, NobodyWaitsForAReaderThatReadsNothing)
{
    log_ring log(writer.get(), 100);
    log.start();
    const std::string line(400, 'x');
    for (int i = 0; i < 1000; ++i) { // several times what the pipe and the ring hold
        log.append(line);
        if (i % 50 == 0)
            std::this_thread::sleep_for(1ms); // lets the thread run into the full pipe
    }
    log.stop(50ms); // returns, or the test never ends
}

// Kernel threads

TEST(KernelThread, ReturnsItsBodysResult)
{
    std::atomic<int> rounds = 0;
    task_struct *task = kthread_create_on_node(
        [](void *argument) {
            while (!kthread_should_stop()) {
                ++*static_cast<std::atomic<int> *>(argument);
                schedule_timeout_interruptible(1);
            }
            return 42;
        },
        &rounds, NUMA_NO_NODE, "a_name_longer_than_most");
    ASSERT_FALSE(IS_ERR(task));
    EXPECT_EQ(rounds, 0);
    wake_up_process(task);
    while (rounds < 3)
        std::this_thread::sleep_for(1ms);
    EXPECT_EQ(kthread_stop(task), 42);
}

TEST(KernelThread, StopEndsALongSleep)
{
    task_struct *task = kthread_create_on_node(
        [](void *) {
            while (!kthread_should_stop())
                schedule_timeout_interruptible(3'600'000);
            return 0;
        },
        nullptr, NUMA_NO_NODE, "sleeper");
    wake_up_process(task);
    std::this_thread::sleep_for(10ms);
    EXPECT_EQ(kthread_stop(task), 0);
}

TEST(KernelThread, NeverStartedItsBodyNeverRuns)
{
    task_struct *task = kthread_create_on_node([](void *) -> int { std::abort(); }, nullptr,
                                               NUMA_NO_NODE, "unborn");
    EXPECT_EQ(kthread_stop(task), -EINTR);
}

// Spinlocks

class LockOrder : public testing::Test
{
  protected:
    LockOrder()
    {
        spin_lock_init(&outer, 1, "outer");
        spin_lock_init(&inner, 2, "inner");
        spin_lock_init(&sibling, 2, "sibling");
    }

    spinlock_t outer;
    spinlock_t inner;
    spinlock_t sibling;
};

TEST_F(LockOrder, RisingRanksAreInOrder)
{
    for (int i = 0; i < 2; ++i) {
        spin_lock_bh(&outer);
        spin_lock_bh(&inner);
        spin_unlock_bh(&outer); // not necessarily the last first
        spin_unlock_bh(&inner);
        spin_lock_bh(&sibling);
        spin_unlock_bh(&sibling);
    }
}

#ifdef KELM_CHECK_CONTEXT // other builds do not check

TEST_F(LockOrder, ABreachEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            spin_lock_bh(&inner);
            spin_lock_bh(&outer);
        },
        "lock order: outer .* while ranks 0x4 are held");
    EXPECT_DEATH(
        {
            spin_lock_bh(&inner);
            spin_lock_bh(&sibling);
        },
        "lock order: sibling");
    EXPECT_DEATH(spin_lock(&outer), "outer taken with spin_lock outside softirq context");
    EXPECT_DEATH(
        {
            spin_lock_bh(&outer);
            schedule_timeout_interruptible(1);
        },
        "schedule_timeout_interruptible called in a task that holds a lock");
}

#endif

} // namespace
