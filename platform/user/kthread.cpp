// SPDX-License-Identifier: GPL-2.0
//
// Kernel threads as threads. A task owns its thread from its creation to kthread_stop.
#include "platform/kthread.h"

#include <cerrno>
#include <memory>
#include <mutex>
#include <new>
#include <system_error>

#include "platform/clock.h"
#include "platform/hosted/mutex.h"
#include "platform/user/clock.h"
#include "platform/user/context.h"
#include "platform/user/thread.h"

struct task_struct {
    int (*body)(void *argument) = nullptr;
    void *argument = nullptr;
    hosted::mutex mutex; // guards the flags
    hosted::condition changed;
    bool started = false;
    bool woken = false;
    bool stopped = false;
    int result = -EINTR; // unless the body ran
    std::thread thread;
};

namespace
{

using guard_lock = std::unique_lock<hosted::mutex>;

thread_local task_struct *current = nullptr;

void run(task_struct &task)
{
    current = &task;
    {
        guard_lock guard(task.mutex);
        task.changed.wait(guard, [&] { return task.started || task.stopped; });
        if (!task.started)
            return;
    }
    task.result = task.body(task.argument);
}

task_struct *error_pointer(int error)
{
    return reinterpret_cast<task_struct *>(-static_cast<long>(error));
}

} // namespace

task_struct *kthread_create_on_node(int (*body)(void *argument), void *argument, int /*node*/,
                                    const char *name)
{
    kelmd::assert_may_sleep(__func__);
    try {
        auto task = std::make_unique<task_struct>();
        task->body = body;
        task->argument = argument;
        task->thread = kelmd::start_thread(name, [made = task.get()] { run(*made); });
        return task.release();
    } catch (const std::system_error &error) {
        return error_pointer(error.code().value());
    } catch (const std::bad_alloc &) {
        return error_pointer(ENOMEM);
    }
}

void wake_up_process(task_struct *task)
{
    const guard_lock guard(task->mutex);
    task->started = true;
    task->woken = true;
    task->changed.wake_all();
}

int kthread_stop(task_struct *task)
{
    kelmd::assert_may_sleep(__func__);
    const std::unique_ptr<task_struct> owned(task);
    {
        const guard_lock guard(task->mutex);
        task->stopped = true;
        task->changed.wake_all();
    }
    task->thread.join();
    return task->result;
}

bool kthread_should_stop()
{
    const guard_lock guard(current->mutex);
    return current->stopped;
}

void schedule_timeout_interruptible(long ticks)
{
    kelmd::assert_may_sleep(__func__);
    guard_lock guard(current->mutex);
    current->changed.wait_until(
        guard, kelmd::tick_start(get_jiffies_64() + static_cast<std::uint64_t>(ticks)),
        [] { return current->woken || current->stopped; });
    current->woken = false;
}
