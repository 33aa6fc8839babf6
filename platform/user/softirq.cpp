// SPDX-License-Identifier: GPL-2.0
//
// One round of the thread takes the time, sees which sockets have something, empties those, and
// only then runs the timers that were due at the time it took. So whatever the thread was kept
// from, and for how long: a datagram that arrived before a timer was due is handled before that
// timer runs. A detection timer never fires over the proof that the peer was alive.
#include "platform/user/softirq.h"

#include <atomic>
#include <cerrno>
#include <mutex>
#include <new>
#include <sched.h>
#include <set>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/hosted/wait.h"
#include "platform/user/context.h"
#include "platform/user/fd.h"
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

using guard_lock = std::unique_lock<hosted::mutex>;

struct softirq_state {
    unique_fd epoll{checked("epoll_create1", epoll_create1(EPOLL_CLOEXEC))};
    std::atomic<bool> stopping = false;
    std::thread thread;

    hosted::mutex lock; // guards what follows
    std::set<receiver *> receivers;
    receiver *draining = nullptr;
    int waiters = 0; // threads that wait for draining to change
    hosted::wait_queue drained;
};

softirq_state &state()
{
    static softirq_state softirq;
    return softirq;
}

// Drains the receiver that an event was for, unless it has been removed since.
void drain(softirq_state &softirq, const epoll_event &event)
{
    auto *const source = static_cast<receiver *>(event.data.ptr); // null for the timers' clock
    guard_lock guard(softirq.lock);
    if (!softirq.receivers.contains(source))
        return;
    softirq.draining = source;
    guard.unlock();
    source->drain();
    guard.lock();
    softirq.draining = nullptr;
    if (softirq.waiters != 0)
        softirq.drained.wake_all();
}

// Ahead of ordinary programs, as far as the process may: on a loaded machine the scheduler would
// otherwise keep the thread waiting for longer than a detection time.
void raise_priority()
{
    constexpr int highest = -20;
    setpriority(PRIO_PROCESS, 0, highest); // 0: this thread
}

// Room for an event of every receiver and of the timers' clock.
void make_room(softirq_state &softirq, std::vector<epoll_event> &events)
{
    const guard_lock guard(softirq.lock);
    if (events.size() <= softirq.receivers.size())
        events.resize(2 * softirq.receivers.size() + 1);
}

void run_softirq(softirq_state &softirq)
{
    this_context.softirq = true;
    raise_priority();
    std::vector<epoll_event> events;
    for (;;) {
        make_room(softirq, events);
        const std::uint64_t now = get_jiffies_64();
        const int timeout = sleep_until_timers(now) ? -1 : 0;
        if (softirq.stopping) // asked here, because setting the clock has undone an earlier ring
            return;
        const int ready = epoll_wait(softirq.epoll.get(), events.data(),
                                     static_cast<int>(events.size()), timeout);
        for (int i = 0; i < ready; ++i)
            drain(softirq, events[static_cast<std::size_t>(i)]);
        if (timeout == 0)
            run_timers(now);
    }
}

} // namespace

void start_softirq(bool realtime)
{
    softirq_state &softirq = state();
    epoll_event clock{.events = EPOLLIN | EPOLLET, .data = {.ptr = nullptr}};
    checked("epoll_ctl", epoll_ctl(softirq.epoll.get(), EPOLL_CTL_ADD, timer_clock_fd(), &clock));
    softirq.thread = start_thread("kelmd-softirq", [&softirq] { run_softirq(softirq); });
    if (!realtime)
        return;
    const sched_param parameters{.sched_priority = realtime_priority};
    if (pthread_setschedparam(softirq.thread.native_handle(), SCHED_FIFO, &parameters) != 0)
        log_line("no real-time scheduling, for which --realtime needs CAP_SYS_NICE or a limit of "
                 "real-time priority (ulimit -r, LimitRTPRIO=): on a loaded machine, packets may "
                 "go out late");
}

void stop_softirq()
{
    softirq_state &softirq = state();
    if (!softirq.thread.joinable())
        return;
    softirq.stopping = true;
    ring_timer_clock();
    softirq.thread.join();
}

int add_receiver(receiver &source)
{
    softirq_state &softirq = state();
    const guard_lock guard(softirq.lock);
    try {
        softirq.receivers.insert(&source);
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
    epoll_event event{.events = EPOLLIN, .data = {.ptr = &source}};
    if (epoll_ctl(softirq.epoll.get(), EPOLL_CTL_ADD, source.receive_fd(), &event) == 0)
        return 0;
    softirq.receivers.erase(&source);
    return -errno;
}

void remove_receiver(receiver &source)
{
    assert_may_sleep("sock_release");
    softirq_state &softirq = state();
    guard_lock guard(softirq.lock);
    if (softirq.receivers.erase(&source) == 0)
        return;
    epoll_ctl(softirq.epoll.get(), EPOLL_CTL_DEL, source.receive_fd(), nullptr);
    ++softirq.waiters;
    softirq.drained.wait(guard, [&] { return softirq.draining != &source; });
    --softirq.waiters;
}

} // namespace kelmd
