// SPDX-License-Identifier: GPL-2.0
//
// The control thread's loop: calls a handler when its descriptor is ready, and runs what other
// threads post. Handlers run one at a time, on the thread that called run.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/hosted/mutex.h"
#include "shared/unique_fd.h"

namespace kelmd
{

class event_loop
{
  public:
    using handler = std::function<void(std::uint32_t events)>;

    // Belongs to the thread that makes it.
    event_loop();

    // events as for epoll_ctl. The descriptor stays the caller's, who must unwatch it before
    // closing it; a handler may unwatch any descriptor, its own too.
    void watch(int fd, std::uint32_t events, handler on_ready);
    void unwatch(int fd);

    // Reports an edge-triggered descriptor again if it is ready still.
    void rearm(int fd);

    // Runs the task on the loop's thread, in the order of posting. Any thread.
    void post(std::function<void()> task);

    // Whether the caller is the loop's own thread.
    [[nodiscard]] bool is_own_thread() const { return std::this_thread::get_id() == owner_; }

    // Until stop, which comes before every handler that has not been called yet. Any thread may
    // stop it, and a signal handler.
    void run();
    void stop();

    // Calls the handlers of what is ready now, without waiting.
    void run_ready() { run_once(0); }

  private:
    struct watched {
        std::uint32_t events;
        std::shared_ptr<handler> on_ready;
    };

    void run_once(int timeout);
    void run_posted();

    const std::thread::id owner_ = std::this_thread::get_id();
    kelm::unique_fd epoll_;
    kelm::unique_fd posted_event_;
    std::unordered_map<int, watched> watched_;
    std::atomic<bool> stopped_ = false;

    hosted::mutex mutex_; // guards posted_
    std::vector<std::function<void()>> posted_;
};

} // namespace kelmd
