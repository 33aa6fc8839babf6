/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What the glue keeps with each of the engine's sockets.
 */
#ifndef KELM_PLATFORM_LINUX_SOCKET_H
#define KELM_PLATFORM_LINUX_SOCKET_H

#include <linux/net.h>
#include <net/sock.h>

struct engine_socket {
    struct socket *socket;
    struct socket *ipv4;     /* of a raw IPv6 socket: what sends to IPv4-mapped addresses */
    struct net *counted_net; /* on which the socket holds a reference, or NULL */
    void (*data_ready)(struct sock *sk);
    void *user_data;
};

/* The socket state is all that the kernel's sk_user_data of such a socket ever holds. */
static inline struct engine_socket *engine_socket(const struct sock *sk)
{
    return sk->sk_user_data;
}

/* The kernel's data-ready callback of a socket that receives. */
void udp_data_ready(struct sock *sk);

#endif
