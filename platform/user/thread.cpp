// SPDX-License-Identifier: GPL-2.0
//
// Threads, and how the shared parts of the hosts wait in them.
#include "platform/user/thread.h"

#include <pthread.h>
#include <string>

#include "platform/hosted/wait.h"

std::thread kelmd::start_thread(const char *name, std::function<void()> body)
{
    std::thread thread(std::move(body));
    pthread_setname_np(thread.native_handle(), std::string(name).substr(0, 15).c_str());
    return thread;
}

void hosted::wait_queue::wait(std::unique_lock<mutex> &lock, const std::function<bool()> &done)
{
    changed_.wait(lock, done);
}

void hosted::wait_queue::wake_all()
{
    changed_.wake_all();
}
