// SPDX-License-Identifier: GPL-2.0
//
// A datagram socket to kelm: the kernel's netlink unit, or kelmd's socket that stands in for it.
#pragma once

#include <chrono>
#include <deque>
#include <optional>
#include <string>

#include "libkelm/bytes.h"
#include "libkelm/fd.h"

namespace kelm
{

using milliseconds = std::chrono::milliseconds;

// How long kelm may take to answer. It answers at once; this only tells a dead kelmd from a slow
// machine.
constexpr milliseconds answer_timeout{10'000};

class transport
{
  public:
    // Opens the kernel's unit where the kernel has one, else connects to kelmd, in the network
    // namespace `netns` (see in_netns). Throws error when neither is there, or when what is there
    // runs neither as root nor as the caller.
    static transport open(const std::string &netns = {});

    // Takes a connected SOCK_SEQPACKET socket with kelmd's protocol on its other end.
    static transport adopt(unique_fd connected);

    int fd() const { return fd_.get(); }               // stays the transport's
    std::uint32_t port_id() const { return port_id_; } // that kelm addresses its answers to
    bool is_kernel() const { return is_kernel_; }      // the kernel's unit, not kelmd

    // Receives the multicast groups of `mask` from now on (bit 0 is group 1), and no others.
    void set_groups(std::uint32_t mask);

    // Sends one datagram of whole messages. Throws error when the connection fails.
    void send(byte_view datagram);

    enum class outcome { datagram, overrun, timed_out };

    // Waits for the next datagram from kelm and puts it into `into`. `overrun`: the kernel has
    // dropped multicasts (kelmd says so in a message instead).
    outcome receive(bytes &into, milliseconds timeout);

  private:
    transport(unique_fd fd, bool is_kernel);

    void verify_daemon() const;
    void bind_kernel();
    void bind_daemon(std::uint32_t mask);
    void set_kernel_groups(std::uint32_t mask);
    outcome receive_raw(bytes &into, milliseconds timeout);

    unique_fd fd_;
    bool is_kernel_;
    std::uint32_t port_id_ = 0;
    std::uint32_t groups_ = 0;
    std::deque<bytes> early_; // arrived while a bind packet was being answered
};

} // namespace kelm
