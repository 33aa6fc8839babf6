// SPDX-License-Identifier: GPL-2.0
//
// Kernel sockets as real sockets: one class for each kind that the engine uses. The engine owns
// them, from __sock_create to sock_release.
#pragma once

#include <cstdint>
#include <span>
#include <sys/socket.h>

#include "platform/hosted/sock.h"
#include "platform/socket.h"
#include "platform/user/fd.h"
#include "platform/user/softirq.h"

namespace kelmd
{

// As it is: the packet socket.
struct host_sock : sock {
    // counted: holds a reference on the namespace for its life.
    host_sock(net *ns, unique_fd socket, bool is_counted);
    ~host_sock() override;

    // As ::bind; 0 or a negative error number.
    virtual int bind(const void *addr, int addrlen);

    // Takes the datagram that the data-ready callback is about; null if it was lost.
    virtual sk_buff *take() { return nullptr; }

    // As ::sendmsg. Any thread.
    virtual ssize_t send(const msghdr &message, int flags);

    // Sets a socket option of level SOL_SOCKET; as far as the system allows.
    virtual void set_option(int option, int value);

    const unique_fd fd;
    const bool counted;
    sock_data_ready data_ready = nullptr;
    void *user_data = nullptr;
};

// A dual-stack UDP socket. Receives from its bind to its end.
struct udp_sock final : host_sock, private receiver {
    udp_sock(net *ns, unique_fd socket, bool is_counted);
    ~udp_sock() override;

    int bind(const void *addr, int addrlen) override;
    sk_buff *take() override;

  private:
    [[nodiscard]] int receive_fd() const override { return fd.get(); }
    void drain() override;
    void receive(const msghdr &message, std::span<const std::uint8_t> payload);

    std::uint16_t port = 0;      // host byte order
    sk_buff *received = nullptr; // the datagram of the callback that runs
};

// A raw IPv6 socket for packets that carry their headers, with an IPv4 one behind it.
struct raw_sock final : host_sock {
    raw_sock(net *ns, unique_fd ipv6_socket, unique_fd ipv4_socket, bool is_counted);

    ssize_t send(const msghdr &message, int flags) override;
    void set_option(int option, int value) override;

    const unique_fd ipv4_fd;
};

// Asks for large buffers and for all that write_udp_headers needs to know. 0 or errno.
[[nodiscard]] int prepare_udp_socket(int fd);

} // namespace kelmd
