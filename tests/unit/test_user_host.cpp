// SPDX-License-Identifier: GPL-2.0
//
// kelmd's log, kernel threads and check of the lock order.
#include <array>
#include <cerrno>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

#include "platform/kthread.h"
#include "platform/spinlock.h"
#include "platform/user/context.h"
#include "platform/user/log.h"
#include "shared/unique_fd.h"

namespace
{

using namespace kelmd;
using namespace std::chrono_literals;

TEST(log, keeps_the_order_cuts_long_lines_and_counts_what_a_full_ring_drops)
{
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    const kelm::unique_fd reader(ends[0]);
    {
        const kelm::unique_fd writer(ends[1]);
        log_ring log(writer.get(), 3);
        for (const auto &line : {std::string("first"), std::string(2 * log_ring::max_line, 'x'),
                                 std::string(), std::string("lost"), std::string("lost too")})
            log.append(line);
        log.start();
        log.stop(10s);
    }
    std::array<char, 4096> text{};
    const ssize_t len = read(reader.get(), text.data(), text.size());
    ASSERT_GT(len, 0);
    std::string written(text.data(), static_cast<std::size_t>(len));
    for (const std::string &expected :
         {std::string("first\n"), std::string(log_ring::max_line, 'x') + "\n", std::string("\n"),
          std::string("kelmd: 2 log lines dropped here")}) {
        written.erase(0, written.find(' ') + 1); // the time
        EXPECT_TRUE(written.starts_with(expected)) << written;
        written.erase(0, expected.size());
    }
}

TEST(kernel_thread, stop_ends_a_long_sleep_and_returns_the_bodys_result)
{
    int result = 42;
    task_struct *task = kthread_create_on_node(
        [](void *its_result) {
            while (!kthread_should_stop())
                schedule_timeout_interruptible(3'600'000);
            return *static_cast<int *>(its_result);
        },
        &result, NUMA_NO_NODE, "a_name_longer_than_most");
    ASSERT_FALSE(IS_ERR(task));
    wake_up_process(task);
    usleep(10'000); // it sleeps by now, or the test shows less
    EXPECT_EQ(kthread_stop(task), 42);
}

TEST(kernel_thread, never_runs_the_body_of_one_that_was_not_started)
{
    task_struct *task = kthread_create_on_node([](void *) -> int { std::abort(); }, nullptr,
                                               NUMA_NO_NODE, "unborn");
    EXPECT_EQ(kthread_stop(task), -EINTR);
}

#ifdef KELM_CHECK_CONTEXT // other builds do not check

TEST(lock_order, a_breach_ends_the_process)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    spinlock_t outer;
    spinlock_t inner;
    spinlock_t sibling;
    spin_lock_init(&outer, 1, "outer");
    spin_lock_init(&inner, 2, "inner");
    spin_lock_init(&sibling, 2, "sibling");

    spin_lock_bh(&outer); // in order; and the last is not necessarily the first to be let go
    spin_lock_bh(&inner);
    spin_unlock_bh(&outer);
    EXPECT_DEATH(spin_lock_bh(&outer), "lock order: outer .* while ranks 0x4 are held");
    EXPECT_DEATH(spin_lock_bh(&sibling), "lock order: sibling");
    EXPECT_DEATH(schedule_timeout_interruptible(1),
                 "schedule_timeout_interruptible called in a task that holds a lock");
    spin_unlock_bh(&inner);
    spin_lock_bh(&sibling);
    spin_unlock_bh(&sibling);
    EXPECT_DEATH(spin_lock(&outer), "outer taken with spin_lock outside softirq context");
}

#endif

} // namespace
