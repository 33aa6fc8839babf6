// SPDX-License-Identifier: GPL-2.0
//
// Tells systemd that kelmd is alive (WATCHDOG=1): that the control thread runs its loop, and that
// the softirq thread runs timers. When either hangs, systemd hears nothing more and restarts kelmd.
#pragma once

#include <atomic>
#include <chrono>

#include "platform/timer.h"
#include "platform/user/event_loop.h"
#include "platform/user/loop_timer.h"

namespace kelmd
{

class watchdog
{
  public:
    // Does nothing where systemd does not ask for it (WatchdogSec=). Control thread.
    explicit watchdog(event_loop &loop);
    ~watchdog();
    watchdog(const watchdog &) = delete;
    watchdog &operator=(const watchdog &) = delete;

  private:
    // A timer of the softirq thread that notes that it has fired.
    struct probe {
        timer_list timer{}; // first, so that its callback finds the probe
        std::atomic<bool> fired = false;
    };

    void check();

    probe probe_;
    loop_timer next_check_;
    std::chrono::milliseconds interval_{};
};

} // namespace kelmd
