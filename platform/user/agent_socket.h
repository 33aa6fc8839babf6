// SPDX-License-Identifier: GPL-2.0
//
// The agents' way in: a listening AF_UNIX socket of an abstract name in every namespace that is
// served, and the connections on it. A connection is a netlink port. Every packet on it is one
// netlink datagram, but for those of 12 bytes: a packet with a sockaddr_nl binds the port, or
// changes its groups, and is answered with another one.
//
// Control thread, but for netlink_port's delivery.
#pragma once

#include <memory>
#include <optional>
#include <string_view>
#include <sys/types.h>
#include <unordered_map>

#include "platform/user/event_loop.h"
#include "platform/user/fd.h"
#include "platform/user/loop_timer.h"
#include "platform/user/net.h"
#include "platform/user/process.h"

namespace kelmd
{

inline constexpr std::string_view agent_socket_name = "kelm-netlink-31";

class agent_connection;

class agent_listener
{
  public:
    // Throws std::system_error; EADDRINUSE if the name is taken.
    agent_listener(event_loop &loop, net &ns);

    // Closes all connections and ends their dumps.
    ~agent_listener();
    agent_listener(const agent_listener &) = delete;
    agent_listener &operator=(const agent_listener &) = delete;

  private:
    void accept_some();
    void take(unique_fd socket);
    void serve(int fd, std::uint32_t events);
    void close(int fd);

    event_loop &loop_;
    net &net_;
    unique_fd socket_;
    std::unordered_map<int, std::unique_ptr<agent_connection>> connections_;
    loop_timer accept_again_; // while there is no descriptor for a connection
};

// The process that listens on the agents' name in the namespace, 0 if it cannot be seen from
// here; nothing if nobody listens.
[[nodiscard]] std::optional<pid_t> agent_socket_owner(const net &ns);

} // namespace kelmd
