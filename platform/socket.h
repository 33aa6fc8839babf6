// SPDX-License-Identifier: GPL-2.0
//
// Kernel sockets for packets.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/label.h"
#include "platform/memory.h"
#include "platform/net.h"
#include "platform/skbuff.h"

// What kernel_sendmsg sends to whom. Address and control data have the layouts of the Linux
// socket interface (sockaddr_in6, sockaddr_ll, cmsghdr).
struct kernel_msghdr {
    const void *msg_name;
    std::uint32_t msg_namelen;
    std::uint32_t msg_flags; // MSG_*
    const void *msg_control; // null for none
    std::size_t msg_controllen;
};

struct kvec {
    const void *iov_base;
    std::size_t iov_len;
};

extern "C" {

using sock_data_ready = void (*)(sock *sk);
using sock_data_ahead = void (*)(sock *sk, const kvec *payloads, std::size_t count);

// Creates a socket in a namespace. With kern 0 it holds a reference on the namespace, of which
// net_refcount counts every one, until its release; with kern 1 none. 0, or a negative error
// number with *res unset. The privilege of the calling task plays no part. Task context.
[[nodiscard]] int __sock_create(net *net, int family, int type, int protocol, sock **res, int kern)
    KELM_PLATFORM(__sock_create);

// 0 or a negative error number. Task context.
[[nodiscard]] int kernel_bind(sock *sk, const void *addr, int addrlen) KELM_PLATFORM(kernel_bind);

// Closes the socket and drops its reference on the namespace. Returns once no data-ready
// callback of it runs or will run. Task context, no lock held.
void sock_release(sock *sk) KELM_PLATFORM(sock_release);

// Installs the callback for received datagrams with a pointer for its use; before the bind, so
// that no datagram goes by unseen. The callback runs in softirq context, once for each datagram
// that __skb_recv_udp then returns, possibly on several processors at once.
void sock_set_data_ready(sock *sk, sock_data_ready callback, void *user_data)
    KELM_PLATFORM(sock_set_data_ready);
// Installs a callback that hosts which read several datagrams at once call before the data-ready
// callbacks of these: what they will need can be fetched meanwhile. Softirq context; the payloads
// are as they came, unchecked, and good until it returns. Likewise before the bind.
void sock_set_data_ahead(sock *sk, sock_data_ahead callback) KELM_PLATFORM(sock_set_data_ahead);
[[nodiscard]] void *sock_user_data(const sock *sk) KELM_PLATFORM(sock_user_data);

// Options of a transmit socket: how it allocates, the priority of what it sends, and the size
// of its send buffer in bytes. Task context.
void sock_set_allocation(sock *sk, gfp_t gfp) KELM_PLATFORM(sock_set_allocation);
void sock_set_priority(sock *sk, std::uint32_t priority) KELM_PLATFORM(sock_set_priority);
void sock_set_sndbuf(sock *sk, int bytes) KELM_PLATFORM(sock_set_sndbuf);

// Dequeues one datagram without waiting; the caller owns it. Null if none is queued, or if the host
// had no memory for the one that it called for. Datagrams with a wrong checksum never get here.
// Softirq context.
[[nodiscard]] sk_buff *__skb_recv_udp(sock *sk) KELM_PLATFORM(__skb_recv_udp);

// Sends one datagram or frame. Returns the number of bytes sent or a negative error number.
// Never waits when msg_flags has MSG_DONTWAIT and the socket allocates atomically. A raw IPv6
// socket of protocol 255 also sends IPv4 packets, addressed by their IPv4-mapped destination.
// The vectors stay the caller's. Any context, spinlocks held too.
[[nodiscard]] int kernel_sendmsg(sock *sk, const kernel_msghdr *msg, const kvec *vec,
                                 std::size_t num, std::size_t size) KELM_PLATFORM(kernel_sendmsg);
}
