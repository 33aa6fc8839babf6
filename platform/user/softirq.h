// SPDX-License-Identifier: GPL-2.0
//
// The softirq thread: receives, and runs timers.
//
// One round of the thread takes the time, sees which sockets have something, empties those, and
// only then runs the timers that were due at the time it took. So however long the thread was kept
// from running: a datagram that arrived before a timer was due is handled before that timer runs. A
// detection timer never fires over the proof that the peer was alive.
//
// Datagrams that follow each other closely, as timers on the peers' side make them, are gathered
// for a moment, so that not each of them costs a wake-up. That delays them by less than a tick, and
// no timer.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "platform/hosted/mutex.h"
#include "platform/hosted/wait.h"
#include "shared/unique_fd.h"

struct epoll_event;

namespace kelmd
{

class timer_base;

// Something that the softirq thread receives from.
class receiver
{
  public:
    virtual ~receiver() = default;

    [[nodiscard]] virtual int receive_fd() const = 0;

    // Handles what is queued until nothing is, or a bound of its own is reached.
    virtual void drain() = 0;
};

class softirq_thread
{
  public:
    // Does not start it. Throws std::system_error.
    explicit softirq_thread(timer_base &timers);
    ~softirq_thread() { stop(); }
    softirq_thread(const softirq_thread &) = delete;
    softirq_thread &operator=(const softirq_thread &) = delete;

    // Returns once the thread has the priority that it is to run with. With realtime that is
    // SCHED_DEADLINE or, where the system refuses that, SCHED_FIFO; the log has what was refused.
    // Throws std::system_error.
    void start(bool realtime);

    // Nothing is received and no timer runs afterwards. Harmless if it does not run.
    void stop();

    // Begins to receive. Any task. 0 or a negative error number.
    [[nodiscard]] int add(receiver &source);

    // Returns once the receiver is not draining and will not drain again. Any task. Harmless if it
    // was never added.
    void remove(receiver &source);

  private:
    using guard = std::unique_lock<hosted::mutex>;

    void run();
    [[nodiscard]] bool drain(const epoll_event &event);
    void gather();
    void make_room(std::vector<epoll_event> &events);

    timer_base &timers_;
    const kelm::unique_fd epoll_;
    std::atomic<bool> stopping_ = false;
    std::thread thread_;
    std::int64_t last_reception_ = 0; // CLOCK_MONOTONIC, nanoseconds

    hosted::mutex lock_; // guards what follows
    std::set<receiver *> receivers_;
    receiver *draining_ = nullptr;
    int waiters_ = 0; // threads that wait for draining_ to change
    hosted::wait_queue drained_;
};

} // namespace kelmd
