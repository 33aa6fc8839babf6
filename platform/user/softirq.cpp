// SPDX-License-Identifier: GPL-2.0
#include "platform/user/softirq.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <future>
#include <memory>
#include <new>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/clock.h"
#include "platform/user/clock.h"
#include "platform/user/context.h"
#include "platform/user/log.h"
#include "platform/user/system_call.h"
#include "platform/user/thread.h"
#include "platform/user/timer.h"

namespace kelmd
{

namespace
{

// The system call's struct sched_attr, which not every C library has.
struct deadline_attributes {
    std::uint32_t size = sizeof(deadline_attributes);
    std::uint32_t policy = SCHED_DEADLINE;
    std::uint64_t flags = 0;
    std::int32_t nice = 0;
    std::uint32_t priority = 0;
    std::uint64_t runtime_ns;
    std::uint64_t deadline_ns;
    std::uint64_t period_ns;
};
static_assert(sizeof(deadline_attributes) == 48);

// For a share of each period the thread runs before all others, real-time ones included; when it
// has used that up, it waits for the next period. The period is the tick of the timers. The largest
// share that the system still has to give carries most sessions and leaves something to others,
// whatever arrives. 0 or errno.
int use_deadline_scheduler()
{
    constexpr std::uint64_t period_ns = 1'000'000;
    for (const unsigned int runtime_ns : {800'000U, 500'000U, 250'000U}) {
        const deadline_attributes attributes{
            .runtime_ns = runtime_ns, .deadline_ns = period_ns, .period_ns = period_ns};
        if (syscall(SYS_sched_setattr, 0, &attributes, 0) == 0)
            return 0;
        if (errno != EBUSY) // the shares of all such threads would exceed the limit
            break;
    }
    return errno;
}

// 0 or errno.
int use_fifo_scheduler()
{
    // Above what ordinary programs use, below the kernel's own threads for interrupts (50).
    const sched_param parameters{.sched_priority = 40};
    return sched_setscheduler(0, SCHED_FIFO, &parameters) == 0 ? 0 : errno;
}

void raise_to_realtime()
{
    const int error = use_deadline_scheduler();
    if (error == 0)
        return;
    if (use_fifo_scheduler() == 0)
        log_line("no SCHED_DEADLINE (%s), using SCHED_FIFO: --realtime needs CAP_SYS_NICE, all "
                 "processors (no cpuset, no CPUAffinity=), and a share of them that no other "
                 "program has reserved; beside other real-time programs, packets may be sent late",
                 std::strerror(error));
    else
        log_line("no real-time scheduling: --realtime needs CAP_SYS_NICE or a limit of real-time "
                 "priority (ulimit -r, LimitRTPRIO=); on a loaded machine, packets may be sent "
                 "late");
}

// Ahead of ordinary programs, as far as the process may: on a loaded machine the scheduler would
// otherwise keep the thread waiting for longer than a detection time.
void raise_priority()
{
    constexpr int highest = -20;
    setpriority(PRIO_PROCESS, 0, highest); // 0: this thread
}

// Datagrams less than this apart are a burst, nanoseconds.
constexpr std::int64_t burst_gap = 100'000;
// For how long the next ones of a burst are waited for. At most one of ten datagrams wakes the
// thread when a peer sends as fast as it can.
constexpr std::int64_t gather_time = 50'000;

constexpr std::int64_t ns_per_second = 1'000'000'000;

std::int64_t nanoseconds(const timespec &time)
{
    return time.tv_sec * ns_per_second + time.tv_nsec;
}

std::int64_t monotonic_now()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return nanoseconds(now);
}

void sleep_until(std::int64_t monotonic)
{
    const timespec when{monotonic / ns_per_second, monotonic % ns_per_second};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &when, nullptr);
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
    // Shared: the thread may still be within set_value when this function returns.
    const auto scheduled = std::make_shared<std::promise<void>>();
    thread_ = start_thread("kelmd-softirq", [this, realtime, scheduled] {
        raise_priority();
        prctl(PR_SET_TIMERSLACK, 1); // nanosecond
        if (realtime)
            raise_to_realtime();
        scheduled->set_value();
        run();
    });
    scheduled->get_future().wait();
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
    std::vector<epoll_event> events;
    for (;;) {
        make_room(events);
        const std::uint64_t now = get_jiffies_64();
        const int timeout = timers_.prepare_sleep(now) ? -1 : 0;
        if (stopping_) // asked here, because setting the clock has undone an earlier ring
            return;
        const int ready =
            epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), timeout);
        bool received = false;
        for (int i = 0; i < ready; ++i)
            received |= drain(events[static_cast<std::size_t>(i)]);
        if (timeout == 0)
            timers_.run(now);
        if (received)
            gather();
    }
}

// Makes room for an event of every receiver and of the timers' clock.
void softirq_thread::make_room(std::vector<epoll_event> &events)
{
    const guard held(lock_);
    if (events.size() <= receivers_.size())
        events.resize(2 * receivers_.size() + 1);
}

// Drains the receiver that an event was for, unless it has been removed since. Whether it did.
bool softirq_thread::drain(const epoll_event &event)
{
    auto *const source = static_cast<receiver *>(event.data.ptr); // null for the timers' clock
    guard held(lock_);
    if (!receivers_.contains(source))
        return false;
    draining_ = source;
    held.unlock();
    source->drain();
    held.lock();
    draining_ = nullptr;
    if (waiters_ != 0)
        drained_.wake_all();
    return true;
}

// Within a burst, lets more datagrams arrive, but no timer become due.
void softirq_thread::gather()
{
    const std::int64_t now = monotonic_now();
    const bool in_burst = now - last_reception_ < burst_gap;
    last_reception_ = now;
    if (!in_burst)
        return;
    last_reception_ = std::min(now + gather_time, nanoseconds(tick_start(get_jiffies_64() + 1)));
    sleep_until(last_reception_);
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
