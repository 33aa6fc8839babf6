// SPDX-License-Identifier: GPL-2.0
//
// Where agents connect: a listening AF_UNIX socket of an abstract name in every namespace that is
// served. A connection stands for an agent's netlink socket. Every packet on it is one netlink
// datagram, except those of 12 bytes: a packet with a sockaddr_nl binds the port, or changes its
// groups, and is answered with another one. A connection that brings descriptors is closed.
//
// Control thread, except for netlink_port's delivery.
#pragma once

#include <memory>
#include <optional>
#include <string_view>
#include <sys/types.h>
#include <unordered_map>

#include "platform/net.h"
#include "platform/user/connection_quota.h"
#include "platform/user/event_loop.h"
#include "platform/user/loop_timer.h"
#include "platform/user/socket_closer.h"
#include "shared/daemon_socket.h"
#include "shared/unique_fd.h"

namespace kelmd
{

inline constexpr int agent_netlink_unit = 31;

class agent_connection;

class agent_listener
{
  public:
    // Throws std::system_error; EADDRINUSE if the name is taken.
    agent_listener(event_loop &loop, connection_quota &quota, socket_closer &closer, net &ns);

    // Closes all connections and ends their dumps.
    ~agent_listener();
    agent_listener(const agent_listener &) = delete;
    agent_listener &operator=(const agent_listener &) = delete;

  private:
    void accept_some();
    void take(kelm::unique_fd socket);

    event_loop &loop_;
    connection_quota &quota_;
    socket_closer &closer_;
    net &net_;
    kelm::unique_fd socket_;
    std::unordered_map<int, std::unique_ptr<agent_connection>> connections_;
    loop_timer accept_again_; // while there is no descriptor or memory for a connection
};

// The process that listens on the agents' name in the namespace, 0 if it cannot be seen from
// here; nothing if nobody listens.
[[nodiscard]] std::optional<pid_t> agent_socket_owner(const net &ns);

} // namespace kelmd
