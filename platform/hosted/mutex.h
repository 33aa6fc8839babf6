// SPDX-License-Identifier: GPL-2.0
//
// The hosts' own mutex. It inherits priority: a real-time thread that waits for it lends its
// priority to the holder, so that the receive thread never waits for a preempted control thread.
#pragma once

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
        pthread_mutex_init(&native, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    ~mutex() { pthread_mutex_destroy(&native); }
    mutex(const mutex &) = delete;
    mutex &operator=(const mutex &) = delete;

    void lock() { pthread_mutex_lock(&native); }
    bool try_lock() { return pthread_mutex_trylock(&native) == 0; }
    void unlock() { pthread_mutex_unlock(&native); }

  private:
    pthread_mutex_t native;
};

} // namespace hosted
