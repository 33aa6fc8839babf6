// SPDX-License-Identifier: GPL-2.0
//
// Where one context waits for another. The members of wait_queue are each host's own: kelmd's
// threads block on the condition variable, the simulation switches to another context.
#pragma once

#include <functional>
#include <mutex>

#include "platform/hosted/mutex.h"

namespace hosted
{

class wait_queue
{
  public:
    // Returns once done() holds. Called with the lock held, which guards what done() reads and is
    // released while waiting. Task context.
    void wait(std::unique_lock<mutex> &lock, const std::function<bool()> &done);

    // To be called after a change, under the same lock, that may satisfy a waiter.
    void wake_all();

  private:
    condition changed_;
};

} // namespace hosted
