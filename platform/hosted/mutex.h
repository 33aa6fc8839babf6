// SPDX-License-Identifier: GPL-2.0
//
// The hosts' own mutex. It inherits priority: a real-time thread that waits for it lends its
// priority to the holder, so that the receive thread never waits for a preempted control thread.
#pragma once

#include <ctime>
#include <mutex>
#include <pthread.h>

namespace hosted
{

class mutex
{
  public:
    mutex()
    {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
        pthread_mutex_init(&native_, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    ~mutex() { pthread_mutex_destroy(&native_); }
    mutex(const mutex &) = delete;
    mutex &operator=(const mutex &) = delete;

    void lock() { pthread_mutex_lock(&native_); }
    bool try_lock() { return pthread_mutex_trylock(&native_) == 0; }
    void unlock() { pthread_mutex_unlock(&native_); }

    pthread_mutex_t *native_handle() { return &native_; }

  private:
    pthread_mutex_t native_;
};

// A condition variable for it. std::condition_variable_any has a mutex of its own, which does not
// inherit priority. To be used with the mutex held, one and the same throughout.
class condition
{
  public:
    condition() = default;
    ~condition() { pthread_cond_destroy(&native_); }
    condition(const condition &) = delete;
    condition &operator=(const condition &) = delete;

    template<typename Predicate>
    void wait(std::unique_lock<mutex> &lock, Predicate done)
    {
        while (!done())
            pthread_cond_wait(&native_, lock.mutex()->native_handle());
    }

    // The deadline is on CLOCK_MONOTONIC.
    template<typename Predicate>
    void wait_until(std::unique_lock<mutex> &lock, const timespec &deadline, Predicate done)
    {
        int error = 0;
        while (!done() && error == 0)
            error = pthread_cond_clockwait(&native_, lock.mutex()->native_handle(), CLOCK_MONOTONIC,
                                           &deadline);
    }

    void wake_all() { pthread_cond_broadcast(&native_); }

  private:
    pthread_cond_t native_ = PTHREAD_COND_INITIALIZER;
};

} // namespace hosted
