// SPDX-License-Identifier: GPL-2.0
#include "platform/hosted/wait.h"

#include "platform/sim/machine.h"

namespace hosted
{

void wait_queue::wait(std::unique_lock<mutex> &lock, const std::function<bool()> &done)
{
    if (done())
        return;
    sim::the_machine().expect_may_sleep("waiting for another context");
    lock.unlock();
    sim::the_machine().sched.wait("another context", done);
    lock.lock();
}

// Waiters are looked at whenever the next context to run is chosen.
void wait_queue::wake_all() {}

} // namespace hosted
