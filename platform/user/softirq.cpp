// SPDX-License-Identifier: GPL-2.0
#include "platform/user/softirq.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <new>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/resource.h>

#include "platform/clock.h"
#include "platform/user/context.h"
#include "platform/user/log.h"
#include "platform/user/system_call.h"
#include "platform/user/thread.h"
#include "platform/user/timer.h"

namespace kelmd
{

namespace
{

// Above what ordinary programs use, below the kernel's own threads for interrupts (50).
constexpr int realtime_priority = 40;

// Ahead of ordinary programs, as far as the process may: on a loaded machine the scheduler would
// otherwise keep the thread waiting for longer than a detection time.
void raise_priority()
{
    constexpr int highest = -20;
    setpriority(PRIO_PROCESS, 0, highest); // 0: this thread
}

} // namespace

softirq_thread::softirq_thread(timer_base &timers)
    : timers_(timers), epoll_(checked("epoll_create1", epoll_create1(EPOLL_CLOEXEC)))
{
    epoll_event clock{.events = EPOLLIN | EPOLLET, .data = {.ptr = nullptr}};
    checked("epoll_ctl", epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, timers_.clock_fd(), &clock));
}

void softirq_thread::start(bool realtime)
{
    thread_ = start_thread("kelmd-softirq", [this] { run(); });
    if (!realtime)
        return;
    const sched_param parameters{.sched_priority = realtime_priority};
    if (pthread_setschedparam(thread_.native_handle(), SCHED_FIFO, &parameters) != 0)
        log_line("no real-time scheduling: --realtime needs CAP_SYS_NICE or a limit of real-time "
                 "priority (ulimit -r, LimitRTPRIO=); on a loaded machine, packets may be sent "
                 "late");
}

void softirq_thread::stop()
{
    if (!thread_.joinable())
        return;
    stopping_ = true;
    timers_.ring();
    thread_.join();
}

void softirq_thread::run()
{
    this_context.softirq = true;
    raise_priority();
    std::vector<epoll_event> events;
    for (;;) {
        make_room(events);
        const std::uint64_t now = get_jiffies_64();
        const int timeout = timers_.prepare_sleep(now) ? -1 : 0;
        if (stopping_) // asked here, because setting the clock has undone an earlier ring
            return;
        const int ready =
            epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), timeout);
        for (int i = 0; i < ready; ++i)
            drain(events[static_cast<std::size_t>(i)]);
        if (timeout == 0)
            timers_.run(now);
    }
}

// Makes room for an event of every receiver and of the timers' clock.
void softirq_thread::make_room(std::vector<epoll_event> &events)
{
    const guard held(lock_);
    if (events.size() <= receivers_.size())
        events.resize(2 * receivers_.size() + 1);
}

// Drains the receiver that an event was for, unless it has been removed since.
void softirq_thread::drain(const epoll_event &event)
{
    auto *const source = static_cast<receiver *>(event.data.ptr); // null for the timers' clock
    guard held(lock_);
    if (!receivers_.contains(source))
        return;
    draining_ = source;
    held.unlock();
    source->drain();
    held.lock();
    draining_ = nullptr;
    if (waiters_ != 0)
        drained_.wake_all();
}

int softirq_thread::add(receiver &source)
{
    const guard held(lock_);
    try {
        receivers_.insert(&source);
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
    epoll_event event{.events = EPOLLIN, .data = {.ptr = &source}};
    if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, source.receive_fd(), &event) == 0)
        return 0;
    const int error = -errno;
    receivers_.erase(&source);
    return error;
}

void softirq_thread::remove(receiver &source)
{
    assert_may_sleep("sock_release");
    guard held(lock_);
    if (receivers_.erase(&source) == 0)
        return;
    epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, source.receive_fd(), nullptr);
    ++waiters_;
    drained_.wait(held, [&] { return draining_ != &source; });
    --waiters_;
}

} // namespace kelmd
