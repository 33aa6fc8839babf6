// SPDX-License-Identifier: GPL-2.0
//
// sd-event with owners: a handle ends what it stands for. A callback that throws ends the loop.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <sys/epoll.h>
#include <systemd/sd-event.h>

namespace kelm_agent
{

class event_loop
{
  public:
    // Keeps its callback registered for as long as it lives.
    class handle
    {
      public:
        handle() = default;

      private:
        friend class event_loop;
        struct source;
        struct end {
            void operator()(source *) const;
        };
        std::unique_ptr<source, end> source_;
    };

    using callback = std::function<void()>;

    event_loop();

    // While `fd`, which outlives the handle, has what `events` (EPOLLIN, EPOLLOUT) say.
    [[nodiscard]] handle on_io(int fd, std::uint32_t events, callback);
    // Once, not earlier than after `delay`. The handle may be dropped before or after, also by the
    // callback itself.
    [[nodiscard]] handle after(std::chrono::microseconds delay, callback);
    // The signal is blocked, for this thread and those that it starts.
    [[nodiscard]] handle on_signal(int signal, callback);
    // At the end of every round, after all that had happened has been handled.
    [[nodiscard]] handle on_idle(callback);

    // Runs until stop().
    void run();
    void stop();

  private:
    struct unref {
        void operator()(sd_event *loop) const { sd_event_unref(loop); }
    };

    handle make(callback);

    std::unique_ptr<sd_event, unref> loop_;
    std::exception_ptr failure_;
};

} // namespace kelm_agent
