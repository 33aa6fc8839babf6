// SPDX-License-Identifier: GPL-2.0
#include "platform/kthread.h"

#include <cerrno>
#include <memory>
#include <utility>

#include "platform/sim/machine.h"

struct task_struct {
    int (*body)(void *argument);
    void *argument;
    const char *name;
    sim::context *running = nullptr; // from its start to its end
    bool stop = false;
    bool ended = false;
    int result = 0;
};

namespace
{

void run(task_struct &task)
{
    sim::context &self = sim::the_machine().sched.current();
    self.task = &task;
    task.result = task.body(task.argument);
    self.task = nullptr;
    task.running = nullptr;
    task.ended = true;
}

// How long the test itself may sleep inside the engine before it counts as hanging, ticks.
constexpr long longest_sleep_of_main = 10'000;

// The test's own context sleeps, and moves the clock itself.
void sleep_on_main(long ticks)
{
    sim::machine &s = sim::the_machine();
    s.slept_on_main += ticks;
    if (s.slept_on_main > longest_sleep_of_main)
        sim::fatal("the engine waits for something that does not come\n%s",
                   s.sched.report().c_str());
    s.advance_to(s.clock.tick + static_cast<std::uint64_t>(ticks));
}

} // namespace

task_struct *kthread_create_on_node(int (*body)(void *argument), void *argument, int /*node*/,
                                    const char *name)
{
    sim::machine &s = sim::the_machine();
    s.expect_may_sleep("kthread_create_on_node");
    if (const int error = s.faults.use(sim::service::thread); error != 0)
        return reinterpret_cast<task_struct *>(static_cast<std::intptr_t>(error));
    ++s.threads;
    return new task_struct{.body = body, .argument = argument, .name = name};
}

void wake_up_process(task_struct *task)
{
    if (task->running != nullptr) {
        task->running->woken = task->running->wakes_at != sim::context::never;
    } else if (!task->ended) {
        task->running = &sim::the_machine().sched.start(task->name, [task] { run(*task); });
    }
}

int kthread_stop(task_struct *task)
{
    sim::machine &s = sim::the_machine();
    s.expect_may_sleep("kthread_stop");
    const std::unique_ptr<task_struct> owned(task);
    --s.threads;
    if (task->running == nullptr && !task->ended)
        return -EINTR;
    task->stop = true;
    if (!task->ended)
        wake_up_process(task);
    s.sched.wait("a thread's end", [task] { return task->ended; });
    return task->result;
}

bool kthread_should_stop()
{
    const task_struct *task = sim::the_machine().sched.current().task;
    return task != nullptr && task->stop;
}

void schedule_timeout_interruptible(long ticks)
{
    sim::machine &s = sim::the_machine();
    s.expect_may_sleep("schedule_timeout_interruptible");
    if (s.sched.on_main())
        sleep_on_main(ticks);
    else if (!kthread_should_stop())
        s.sched.sleep(s.clock.tick + static_cast<std::uint64_t>(ticks));
}
