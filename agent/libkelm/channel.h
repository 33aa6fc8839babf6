// SPDX-License-Identifier: GPL-2.0
//
// What a client needs of the world: datagrams to and from kelm, and a clock. A transport is the
// real one; tests put a kelm of their own making, on a clock of its own, in its place.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>

#include "libkelm/bytes.h"

namespace kelm
{

using milliseconds = std::chrono::milliseconds;
using time_point = std::chrono::steady_clock::time_point;

// How long kelm may take to answer. It answers at once; this only tells a dead kelmd from a slow
// machine.
constexpr milliseconds answer_timeout{10'000};

// What poll() takes: milliseconds from `now` to `deadline`, rounded up; -1 without a deadline.
inline int poll_timeout(std::optional<time_point> deadline, time_point now)
{
    constexpr time_point::duration longest = std::chrono::hours(24);
    if (!deadline)
        return -1;
    const auto left = std::clamp(*deadline - now, time_point::duration(0), longest);
    return static_cast<int>(std::chrono::ceil<milliseconds>(left).count());
}

class channel
{
  public:
    virtual ~channel() = default;

    // To wait on, for POLLIN and POLLOUT. Stays the channel's.
    virtual int fd() const = 0;
    // The port id that kelm addresses its answers to.
    virtual std::uint32_t port_id() const = 0;
    // The kernel's unit, which has answered a request when send() returns; otherwise kelmd.
    virtual bool is_kernel() const = 0;

    // Goes on with opening, without waiting. False: once more when fd() is readable; nothing else
    // can be done with the channel until then. Throws error when the connection fails.
    [[nodiscard]] virtual bool is_open() { return true; }

    // Receives the multicast groups of `mask` from now on (bit 0 is group 1), and no others.
    virtual void set_groups(std::uint32_t mask) = 0;

    // Sends one datagram of whole messages. False if there is no room for it now. Throws error
    // when the connection fails.
    [[nodiscard]] virtual bool send(byte_view datagram) = 0;

    enum class outcome { datagram, overrun, nothing };

    // Puts the next datagram from kelm into `into`, without waiting for one. `overrun`: the kernel
    // has dropped datagrams (kelmd says so in a message instead). Throws error when the connection
    // fails.
    virtual outcome receive(bytes &into) = 0;

    // Waits until receive() or, if `events` has POLLOUT, send() may succeed; no longer than until
    // `deadline`.
    virtual void wait(short events, time_point deadline) = 0;

    virtual time_point now() const = 0;
};

} // namespace kelm
