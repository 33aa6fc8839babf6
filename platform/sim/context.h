// SPDX-License-Identifier: GPL-2.0
//
// Contexts: the processors, tasks and kernel threads of the simulation, as fibers of one thread.
//
// The test itself is the main context; it runs until it waits. Kernel threads are contexts, and
// so is everything that is made to run at another context's lock point. A context that waits, for
// a lock or for a condition, is switched away from; among those that can go on, the one suspended
// last is resumed, or in a race, any one by the seed. If none can go on, that is a deadlock.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <ucontext.h>
#include <vector>

#include "platform/hosted/netlink.h"
#include "platform/sim/random.h"

struct timer_list;
struct task_struct;

namespace sim
{

struct lock;

// Memory of a fiber's stack, with a guard page below.
class fiber_stack
{
  public:
    fiber_stack();
    ~fiber_stack();
    fiber_stack(const fiber_stack &) = delete;
    fiber_stack &operator=(const fiber_stack &) = delete;

    [[nodiscard]] std::byte *bottom() const;
    [[nodiscard]] static std::size_t size();

  private:
    std::byte *mapping_;
};

struct context {
    static constexpr std::size_t max_locks = 16;
    static constexpr std::uint64_t never = ~std::uint64_t{0};

    std::string name;
    std::function<void()> body;
    std::function<bool()> may_go_on; // while waiting
    const char *waits_for = nullptr; // and what that is, for a deadlock's report
    const lock *wanted = nullptr;    // the lock it waits for
    bool finished = false;
    std::uint64_t wakes_at = never; // while asleep: the tick at which it wakes by itself
    bool woken = false;
    std::uint64_t suspended_at = 0; // serial number

    int softirq_depth = 0;
    int bh_off_depth = 0; // locks held that keep bottom halves off
    std::array<lock *, max_locks> held{};
    std::size_t held_count = 0;
    const timer_list *running_timer = nullptr;
    const sock *running_sock = nullptr;
    task_struct *task = nullptr;

    hosted::netlink_port *sender = nullptr; // of the request being handled, while suspended
    std::unique_ptr<fiber_stack> stack;     // none for the main context
    ucontext_t registers{};
    void *fake_stack = nullptr; // address sanitizer's
    const void *stack_bottom = nullptr;
    std::size_t stack_size = 0;

    [[nodiscard]] bool may_sleep() const { return softirq_depth == 0 && held_count == 0; }
};

class scheduler
{
  public:
    explicit scheduler(std::uint64_t seed);
    scheduler(const scheduler &) = delete;
    scheduler &operator=(const scheduler &) = delete;

    [[nodiscard]] context &current() { return *running_; }
    [[nodiscard]] bool on_main() const { return running_ == contexts_.front().get(); }

    // A context that runs when others wait. It is gone when body returns.
    context &start(std::string name, std::function<void()> body);

    // Suspends the current context until done() holds. What it waits for is for reports; a lock
    // that it wants, too.
    void wait(const char *what, std::function<bool()> done, const lock *wanted = nullptr);

    // Suspends it until tick `until`, or until it is woken. A sleeper is not stuck.
    void sleep(std::uint64_t until);

    // The first tick at which a sleeper wakes.
    [[nodiscard]] std::uint64_t next_wake() const;

    // Lets others go on, if there are any that can; so does every lock point in a race.
    void yield();

    // A place where another processor may do something: around every lock operation.
    void lock_point()
    {
        ++lock_points_;
        if (armed_)
            act_at_lock_point();
    }

    // Starts an action as a context of its own at the k-th lock point from now.
    void at_lock_point(std::uint64_t k, std::function<void()> action);

    // Runs the actions as contexts that take turns at random; returns when all have ended.
    void race(std::vector<std::function<void()>> actions);

    // Runs all others until they can do no more. Main context only.
    void settle();

    [[nodiscard]] std::uint64_t lock_points_passed() const { return lock_points_; }
    [[nodiscard]] std::size_t actions_left() const { return planned_.size(); }
    [[nodiscard]] const std::vector<std::unique_ptr<context>> &all() const { return contexts_; }

    // Who waits for what, and who holds what.
    [[nodiscard]] std::string report() const;

  private:
    struct plan {
        std::uint64_t lock_point;
        std::function<void()> action;
    };

    void act_at_lock_point();
    void run_now(context &next);
    void switch_to(context &next);
    [[nodiscard]] context *choose(const context *except);
    void forget_finished();
    void make_stack(context &fresh);
    [[noreturn]] void run_body();
    static void enter_fiber();

    std::vector<std::unique_ptr<context>> contexts_; // the main context first
    std::vector<std::unique_ptr<fiber_stack>> spare_stacks_;
    context *running_;
    std::uint64_t suspensions_ = 0;
    std::uint64_t lock_points_ = 0;
    bool armed_ = false; // something may happen at lock points
    bool racing_ = false;
    std::vector<plan> planned_;
    random_source random_;
};

} // namespace sim
