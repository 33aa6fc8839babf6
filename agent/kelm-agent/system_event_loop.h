// SPDX-License-Identifier: GPL-2.0
//
// sd-event with owners. A callback that throws ends the loop.
#pragma once

#include <exception>
#include <systemd/sd-event.h>

#include "kelm-agent/event_loop.h"

namespace kelm_agent
{

class system_event_loop final : public event_loop
{
  public:
    system_event_loop();

    time_point now() const override { return std::chrono::steady_clock::now(); }
    handle on_io(int fd, std::uint32_t events, callback, turn) override;
    handle after(std::chrono::microseconds delay, callback) override;
    handle soon(callback) override;
    handle on_idle(callback) override;

    // The signal is blocked, for this thread and those that it starts. It is handled before
    // anything else that waits.
    [[nodiscard]] handle on_signal(int signal, callback);

    // Runs until stop().
    void run();
    void stop();

  private:
    class sd_source;

    struct unref {
        void operator()(sd_event *loop) const { sd_event_unref(loop); }
    };

    std::unique_ptr<sd_event, unref> loop_;
    std::exception_ptr failure_;
};

} // namespace kelm_agent
