// SPDX-License-Identifier: GPL-2.0
#pragma once

#include <chrono>

#include "platform/user/event_loop.h"

namespace kelmd
{

// Calls a handler of the control loop once, some time after it was armed. For the loop's own
// thread.
class loop_timer
{
  public:
    loop_timer(event_loop &loop, std::function<void()> handler);
    ~loop_timer();
    loop_timer(const loop_timer &) = delete;
    loop_timer &operator=(const loop_timer &) = delete;

    // Arms it, or moves it.
    void arm(std::chrono::milliseconds delay);

  private:
    event_loop &loop_;
    kelm::unique_fd timer_;
};

} // namespace kelmd
