// SPDX-License-Identifier: GPL-2.0
//
// Kernel sockets as real sockets: one class for each kind that the engine uses. The engine owns
// them, from __sock_create to sock_release. Those that receive are in udp_socket.h.
#pragma once

#include <sys/socket.h>

#include "platform/hosted/sock.h"
#include "platform/socket.h"
#include "shared/unique_fd.h"

namespace kelmd
{

// As it is: the packet socket.
struct host_sock : sock {
    // counted: holds a reference on the namespace for its life.
    host_sock(net *ns, kelm::unique_fd socket, bool is_counted);
    ~host_sock() override;

    // As ::bind; 0 or a negative error number.
    virtual int bind(const void *addr, int addrlen);

    // As ::sendmsg. Any thread.
    virtual ssize_t send(const msghdr &message, int flags);

    // Sets a socket option of level SOL_SOCKET; as far as the system allows.
    virtual void set_option(int option, int value);

    const kelm::unique_fd fd;
    const bool counted;
    sock_data_ready data_ready = nullptr;
    sock_data_ahead data_ahead = nullptr;
    void *user_data = nullptr;
};

// A raw IPv6 socket for packets that carry their headers, with an IPv4 one behind it.
struct raw_sock final : host_sock {
    raw_sock(net *ns, kelm::unique_fd ipv6_socket, kelm::unique_fd ipv4_socket, bool is_counted);

    ssize_t send(const msghdr &message, int flags) override;
    void set_option(int option, int value) override;

    const kelm::unique_fd ipv4_fd;
};

} // namespace kelmd
