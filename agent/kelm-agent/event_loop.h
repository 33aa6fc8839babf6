// SPDX-License-Identifier: GPL-2.0
//
// What the agent's parts wait on: descriptors, the clock, signals. The agent runs on
// system_event_loop, its tests on a loop with a virtual clock.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <sys/epoll.h>

namespace kelm_agent
{

class event_loop
{
  public:
    using callback = std::function<void()>;
    using time_point = std::chrono::steady_clock::time_point;

    struct source {
        virtual ~source() = default;
    };
    // Keeps a callback registered for as long as it lives. The callback may end it.
    using handle = std::unique_ptr<source>;

    event_loop() = default;
    event_loop(const event_loop &) = delete;
    event_loop &operator=(const event_loop &) = delete;
    virtual ~event_loop() = default;

    // Never goes back.
    virtual time_point now() const = 0;

    enum class turn { fair, first };

    // While `fd`, which outlives the handle, has what `events` (EPOLLIN, EPOLLOUT) say. What comes
    // first must take little time, and must not be ready again and again.
    [[nodiscard]] virtual handle on_io(int fd, std::uint32_t events, callback,
                                       turn = turn::fair) = 0;
    // Once, not earlier than after `delay`.
    [[nodiscard]] virtual handle after(std::chrono::microseconds delay, callback) = 0;
    // Once, as soon as others have had their turn.
    [[nodiscard]] virtual handle soon(callback) = 0;
    // At the end of every round, after what had happened has been handled.
    [[nodiscard]] virtual handle on_idle(callback) = 0;
};

} // namespace kelm_agent
