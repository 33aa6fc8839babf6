// SPDX-License-Identifier: GPL-2.0
//
// The engine's sockets: making them in their namespace, binding, options, sending.
#include "platform/user/socket.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <net/ethernet.h>
#include <netinet/in.h>
#include <new>

#include "platform/user/buffer.h"
#include "platform/user/context.h"
#include "platform/user/net.h"
#include "platform/user/udp_socket.h"

namespace kelmd
{

host_sock::host_sock(net *ns, kelm::unique_fd socket, bool is_counted)
    : sock(ns), fd(std::move(socket)), counted(is_counted)
{
    if (counted)
        get_net(*ns);
}

host_sock::~host_sock()
{
    if (counted)
        put_net(*netns);
}

int host_sock::bind(const void *addr, int addrlen)
{
    const auto *const address = static_cast<const sockaddr *>(addr);
    return ::bind(fd.get(), address, static_cast<socklen_t>(addrlen)) == 0 ? 0 : -errno;
}

ssize_t host_sock::send(const msghdr &message, int flags)
{
    return ::sendmsg(fd.get(), &message, flags);
}

namespace
{

// A refusal means that CAP_NET_ADMIN is missing, which kelmd has logged at its start.
void set_fd_option(int fd, int option, int value)
{
    if (option == SO_SNDBUF)
        set_buffer(fd, option, value);
    else
        setsockopt(fd, SOL_SOCKET, option, &value, sizeof value);
}

} // namespace

void host_sock::set_option(int option, int value)
{
    set_fd_option(fd.get(), option, value);
}

raw_sock::raw_sock(net *ns, kelm::unique_fd ipv6_socket, kelm::unique_fd ipv4_socket,
                   bool is_counted)
    : host_sock(ns, std::move(ipv6_socket), is_counted), ipv4_fd(std::move(ipv4_socket))
{
}

ssize_t raw_sock::send(const msghdr &message, int flags)
{
    const auto *const ipv6 = static_cast<const sockaddr_in6 *>(message.msg_name);
    if (!IN6_IS_ADDR_V4MAPPED(&ipv6->sin6_addr))
        return ::sendmsg(fd.get(), &message, flags);
    sockaddr_in ipv4{};
    ipv4.sin_family = AF_INET;
    std::memcpy(&ipv4.sin_addr, ipv6->sin6_addr.s6_addr + 12, sizeof ipv4.sin_addr);
    msghdr ipv4_message = message;
    ipv4_message.msg_name = &ipv4;
    ipv4_message.msg_namelen = sizeof ipv4;
    return ::sendmsg(ipv4_fd.get(), &ipv4_message, flags);
}

void raw_sock::set_option(int option, int value)
{
    set_fd_option(fd.get(), option, value);
    set_fd_option(ipv4_fd.get(), option, value);
}

namespace
{

kelm::unique_fd open_socket(int family, int type, int protocol)
{
    return kelm::unique_fd(::socket(family, type | SOCK_CLOEXEC | SOCK_NONBLOCK, protocol));
}

// Packets of protocol 255 that arrive are not wanted; the smallest of buffers keeps them out.
kelm::unique_fd open_raw_socket(int family)
{
    kelm::unique_fd fd = open_socket(family, SOCK_RAW, IPPROTO_RAW);
    if (fd)
        set_buffer(fd.get(), SO_RCVBUF, 0);
    return fd;
}

std::unique_ptr<host_sock> make_raw(net *ns, bool counted)
{
    kelm::unique_fd ipv6 = open_raw_socket(AF_INET6);
    if (!ipv6)
        return nullptr;
    kelm::unique_fd ipv4 = open_raw_socket(AF_INET);
    if (!ipv4)
        return nullptr;
    return std::make_unique<raw_sock>(ns, std::move(ipv6), std::move(ipv4), counted);
}

// With protocol 0, whatever the engine asks for: the socket only sends, and so it receives
// nothing.
std::unique_ptr<host_sock> make_packet(net *ns, bool counted)
{
    kelm::unique_fd fd = open_socket(AF_PACKET, SOCK_RAW, 0);
    return fd ? std::make_unique<host_sock>(ns, std::move(fd), counted) : nullptr;
}

struct socket_kind {
    int family;
    int type;
    std::unique_ptr<host_sock> (*make)(net *ns, bool counted); // null: errno says why
    const char *name;
};

constexpr std::array<socket_kind, 3> kinds{{
    {AF_INET6, SOCK_DGRAM, make_udp_sock, "opening a UDP socket"},
    {AF_INET6, SOCK_RAW, make_raw, "opening raw sockets"},
    {AF_PACKET, SOCK_RAW, make_packet, "opening a packet socket"},
}};

// 0 or errno.
int make_socket(const socket_kind &kind, net *ns, bool counted, sock **res)
{
    const in_namespace inside(*ns);
    if (inside.error() != 0)
        return inside.error();
    try {
        std::unique_ptr<host_sock> made = kind.make(ns, counted);
        if (made == nullptr)
            return errno;
        *res = made.release();
        return 0;
    } catch (const std::bad_alloc &) {
        return ENOMEM;
    }
}

host_sock &native(sock *sk)
{
    return static_cast<host_sock &>(*sk);
}

} // namespace

} // namespace kelmd

// Services

using namespace kelmd;

int __sock_create(net *net, int family, int type, int /*protocol*/, sock **res, int kern)
{
    assert_may_sleep(__func__);
    for (const socket_kind &kind : kinds) {
        if (kind.family != family || kind.type != type)
            continue;
        const int error = make_socket(kind, net, kern == 0, res);
        if (error != 0)
            net->obstacle = {.what = obstacle::other, .call = kind.name, .error = error};
        return -error;
    }
    return -EAFNOSUPPORT;
}

int kernel_bind(sock *sk, const void *addr, int addrlen)
{
    assert_may_sleep(__func__);
    const int result = native(sk).bind(addr, addrlen);
    if (result == -EADDRINUSE)
        sk->netns->obstacle = {.what = obstacle::port_taken,
                               .port = ntohs(static_cast<const sockaddr_in6 *>(addr)->sin6_port),
                               .error = -result};
    else if (result != 0)
        sk->netns->obstacle = {.what = obstacle::other, .call = "bind", .error = -result};
    return result;
}

void sock_release(sock *sk)
{
    assert_may_sleep(__func__);
    delete sk;
}

void sock_set_data_ready(sock *sk, sock_data_ready callback, void *user_data)
{
    native(sk).data_ready = callback;
    native(sk).user_data = user_data;
}

void sock_set_data_ahead(sock *sk, sock_data_ahead callback)
{
    native(sk).data_ahead = callback;
}

void *sock_user_data(const sock *sk)
{
    return static_cast<const host_sock *>(sk)->user_data;
}

// Nothing that is sent here waits for memory.
void sock_set_allocation(sock * /*sk*/, gfp_t /*gfp*/) {}

void sock_set_priority(sock *sk, std::uint32_t priority)
{
    native(sk).set_option(SO_PRIORITY, static_cast<int>(priority));
}

void sock_set_sndbuf(sock *sk, int bytes)
{
    native(sk).set_option(SO_SNDBUF, bytes);
}

static_assert(sizeof(kvec) == sizeof(iovec) && offsetof(kvec, iov_len) == offsetof(iovec, iov_len));

int kernel_sendmsg(sock *sk, const kernel_msghdr *msg, const kvec *vec, std::size_t num,
                   std::size_t /*size*/)
{
    msghdr message{};
    message.msg_name = const_cast<void *>(msg->msg_name);
    message.msg_namelen = msg->msg_namelen;
    message.msg_iov = reinterpret_cast<iovec *>(const_cast<kvec *>(vec));
    message.msg_iovlen = num;
    message.msg_control = const_cast<void *>(msg->msg_control);
    message.msg_controllen = msg->msg_controllen;
    const auto flags = static_cast<int>(msg->msg_flags) | MSG_NOSIGNAL;
    const ssize_t sent = native(sk).send(message, flags);
    return sent >= 0 ? static_cast<int>(sent) : -errno;
}
