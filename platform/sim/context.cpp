// SPDX-License-Identifier: GPL-2.0
//
// Fibers by ucontext. The address sanitizer is told of every switch, or it would take another
// fiber's stack for a wild pointer.
#include "platform/sim/context.h"

#include <algorithm>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

#include "platform/sim/failure.h"
#include "platform/sim/machine.h"
#include "platform/sim/spinlock.h"

#ifndef __has_feature // which clang has, and says address_sanitizer with
#define __has_feature(feature) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
#include <sanitizer/common_interface_defs.h>
#else
static void __sanitizer_start_switch_fiber(void **, const void *, std::size_t) {}
static void __sanitizer_finish_switch_fiber(void *, const void **, std::size_t *) {}
#endif

namespace sim
{

namespace
{

constexpr std::size_t stack_bytes = 256 * 1024;

// The scheduler and the context that the fiber being entered was switched from.
scheduler *entering = nullptr;
context *came_from = nullptr;

} // namespace

fiber_stack::fiber_stack()
{
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void *memory = mmap(nullptr, stack_bytes, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED || mprotect(memory, page, PROT_NONE) != 0)
        fatal("no memory for a fiber's stack");
    mapping_ = static_cast<std::byte *>(memory);
}

fiber_stack::~fiber_stack()
{
    munmap(mapping_, stack_bytes);
}

std::byte *fiber_stack::bottom() const
{
    return mapping_;
}

std::size_t fiber_stack::size()
{
    return stack_bytes;
}

scheduler::scheduler(std::uint64_t seed) : random_(seed)
{
    contexts_.push_back(std::make_unique<context>());
    running_ = contexts_.front().get();
    running_->name = "main";
}

context &scheduler::start(std::string name, std::function<void()> body)
{
    contexts_.push_back(std::make_unique<context>());
    context &fresh = *contexts_.back();
    fresh.name = std::move(name);
    fresh.body = std::move(body);
    fresh.suspended_at = ++suspensions_;
    make_stack(fresh);
    return fresh;
}

void scheduler::make_stack(context &fresh)
{
    if (spare_stacks_.empty()) {
        fresh.stack = std::make_unique<fiber_stack>();
    } else {
        fresh.stack = std::move(spare_stacks_.back());
        spare_stacks_.pop_back();
    }
    fresh.stack_bottom = fresh.stack->bottom();
    fresh.stack_size = fiber_stack::size();
    getcontext(&fresh.registers);
    fresh.registers.uc_stack.ss_sp = fresh.stack->bottom();
    fresh.registers.uc_stack.ss_size = fiber_stack::size();
    fresh.registers.uc_link = nullptr;
    makecontext(&fresh.registers, enter_fiber, 0);
    fresh.registers.uc_mcontext.gregs[REG_RBP] = 0; // ends the chain of frames
}

void scheduler::enter_fiber()
{
    __sanitizer_finish_switch_fiber(nullptr, &came_from->stack_bottom, &came_from->stack_size);
    entering->run_body();
}

void scheduler::run_body()
{
    forget_finished();
    context &self = *running_;
    self.body();
    if (self.held_count != 0)
        failure("context %s ends with locks held\n%s", self.name.c_str(), report().c_str());
    self.finished = true;
    context *next = choose(&self);
    if (next == nullptr)
        fatal("deadlock\n%s", report().c_str());
    switch_to(*next);
    fatal("a finished context was resumed");
}

void scheduler::switch_to(context &next)
{
    context &self = *running_;
    running_ = &next;
    entering = this;
    came_from = &self;
    self.sender = hosted::exchange_current_sender(next.sender);
    __sanitizer_start_switch_fiber(self.finished ? nullptr : &self.fake_stack, next.stack_bottom,
                                   next.stack_size);
    swapcontext(&self.registers, &next.registers);
    __sanitizer_finish_switch_fiber(self.fake_stack, &came_from->stack_bottom,
                                    &came_from->stack_size);
    forget_finished();
}

void scheduler::forget_finished()
{
    std::erase_if(contexts_, [this](std::unique_ptr<context> &each) {
        if (!each->finished)
            return false;
        spare_stacks_.push_back(std::move(each->stack));
        return true;
    });
}

// A context that can go on, or null.
context *scheduler::choose(const context *except)
{
    context *latest = nullptr;
    std::vector<context *> able;
    for (const std::unique_ptr<context> &each : contexts_) {
        if (each.get() == except || each->finished || (each->may_go_on && !each->may_go_on()))
            continue;
        if (latest == nullptr || each->suspended_at > latest->suspended_at)
            latest = each.get();
        if (racing_)
            able.push_back(each.get());
    }
    return able.empty() ? latest : able[random_.below(able.size())];
}

void scheduler::run_now(context &next)
{
    running_->suspended_at = ++suspensions_;
    switch_to(next);
}

void scheduler::wait(const char *what, std::function<bool()> done, const lock *wanted)
{
    if (done())
        return;
    context &self = *running_;
    self.may_go_on = std::move(done);
    self.waits_for = what;
    self.wanted = wanted;
    self.suspended_at = ++suspensions_;
    context *next = choose(nullptr);
    if (next == nullptr)
        fatal("deadlock\n%s", report().c_str());
    if (next != &self)
        switch_to(*next);
    self.may_go_on = nullptr;
    self.waits_for = nullptr;
    self.wanted = nullptr;
}

void scheduler::sleep(std::uint64_t until)
{
    context &self = *running_;
    self.wakes_at = until;
    wait("time", [&self] { return self.woken || the_machine().clock.tick >= self.wakes_at; });
    self.wakes_at = context::never;
    self.woken = false;
}

std::uint64_t scheduler::next_wake() const
{
    std::uint64_t first = context::never;
    for (const std::unique_ptr<context> &each : contexts_)
        first = std::min(first, each->wakes_at);
    return first;
}

void scheduler::yield()
{
    if (context *next = choose(running_))
        run_now(*next);
}

void scheduler::at_lock_point(std::uint64_t k, std::function<void()> action)
{
    planned_.push_back({lock_points_ + k, std::move(action)});
    armed_ = true;
}

void scheduler::act_at_lock_point()
{
    for (std::size_t i = 0; i < planned_.size();) {
        if (planned_[i].lock_point > lock_points_) {
            ++i;
            continue;
        }
        std::function<void()> action = std::move(planned_[i].action);
        planned_.erase(planned_.begin() + static_cast<std::ptrdiff_t>(i));
        run_now(start("action", std::move(action)));
        i = 0; // the action may have planned more
    }
    if (racing_ && random_.below(2) == 0)
        yield();
    armed_ = racing_ || !planned_.empty();
}

void scheduler::race(std::vector<std::function<void()>> actions)
{
    std::size_t left = actions.size();
    int number = 0;
    for (std::function<void()> &action : actions) {
        start("racer " + std::to_string(++number), [&left, &action] {
            action();
            --left;
        });
    }
    racing_ = true;
    armed_ = true;
    wait("the race", [&left] { return left == 0; });
    racing_ = false;
    armed_ = !planned_.empty();
}

void scheduler::settle()
{
    if (contexts_.size() == 1)
        return;
    const context *main = contexts_.front().get();
    wait("the others", [this, main] { return choose(main) == nullptr; });
    for (const std::unique_ptr<context> &each : contexts_) {
        if (each.get() != main && each->wakes_at == context::never)
            fatal("deadlock: %s is stuck\n%s", each->name.c_str(), report().c_str());
    }
}

std::string scheduler::report() const
{
    std::string text;
    for (const std::unique_ptr<context> &each : contexts_) {
        text += "  " + each->name + (each.get() == running_ ? ", running" : "");
        if (each->wanted != nullptr && each->wanted->holder != nullptr)
            text += ", wants " + std::string(each->wanted->name) + ", which " +
                    each->wanted->holder->name + " holds";
        else if (each->waits_for != nullptr)
            text += ", waits for " + std::string(each->waits_for);
        for (std::size_t i = 0; i < each->held_count; ++i)
            text += std::string(i == 0 ? ", holds " : ", ") + each->held[i]->name;
        text += "\n";
    }
    return text;
}

} // namespace sim
