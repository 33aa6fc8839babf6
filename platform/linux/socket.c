// SPDX-License-Identifier: GPL-2.0
/*
 * The engine's sockets: making them, options, sending, release. Reception is in udp_receive.c.
 *
 * To the kernel all of them are its own (kern = 1), because what it asks of other sockets depends
 * on any task that a softirq has interrupted when they send. The reference on the namespace that
 * such a socket lacks is taken by hand where the engine wants one.
 */
#include "platform/linux/socket.h"

#include <linux/in.h>
#include <linux/slab.h>
#include <linux/workqueue.h>
#include <net/ipv6.h>

#include "platform/linux/fault.h"
#include "platform/linux/glue.h"

/*
 * A kernel thread makes them, with the kernel's privilege and in the root of all control groups:
 * BPF programs of the group in which a namespace was made would decide about its BFD.
 */
struct creation {
    struct work_struct work;
    struct net *net;
    int family, type, protocol;
    struct socket *socket;
    int err;
};

static void create_here(struct work_struct *work)
{
    struct creation *creation = container_of(work, struct creation, work);

    creation->err = __sock_create(creation->net, creation->family, creation->type,
                                  creation->protocol, &creation->socket, 1);
}

static int create_as_kernel(struct net *net, int family, int type, int protocol,
                            struct socket **socket)
{
    struct creation creation = {.net = net, .family = family, .type = type, .protocol = protocol};

    if (fault_due())
        return -ENOMEM;
    INIT_WORK_ONSTACK(&creation.work, create_here);
    queue_work(system_unbound_wq, &creation.work);
    flush_work(&creation.work);
    destroy_work_on_stack(&creation.work);
    *socket = creation.socket;
    return creation.err;
}

/*
 * A raw IPv6 socket sends no IPv4: it has a socket behind it that does. A packet socket of protocol
 * 0 receives nothing and sends all; any other would stand in the way of every packet that comes in.
 */
static int create_sockets(struct engine_socket *es, struct net *net, int family, int type,
                          int protocol)
{
    int err;

    if (family == AF_PACKET)
        protocol = 0;
    err = create_as_kernel(net, family, type, protocol, &es->socket);
    if (err || family != AF_INET6 || type != SOCK_RAW)
        return err;
    err = create_as_kernel(net, AF_INET, type, protocol, &es->ipv4);
    if (err)
        sock_release(es->socket);
    return err;
}

static void set_up(struct sock *sk)
{
    /* IPv4 datagrams too, whatever net.ipv6.bindv6only says. */
    if (sk->sk_family == AF_INET6)
        sk->sk_ipv6only = 0;
    /* Nobody reads what matches a raw socket's protocol: no room to queue it. */
    if (sk->sk_type == SOCK_RAW)
        WRITE_ONCE(sk->sk_rcvbuf, 0);
#ifdef CONFIG_NET_RX_BUSY_POLL
    sk->sk_ll_usec = 0; /* an empty queue is read in softirq */
#endif
}

int kelm___sock_create(struct net *net, int family, int type, int protocol, struct sock **res,
                       int kern)
{
    struct engine_socket *es = kelm_kzalloc(sizeof(*es), ENGINE_GFP_KERNEL);
    int err;

    if (!es)
        return -ENOMEM;
    err = create_sockets(es, net, family, type, protocol);
    if (err) {
        kfree(es);
        return err;
    }
    set_up(es->socket->sk);
    if (es->ipv4)
        set_up(es->ipv4->sk);
    if (!kern)
        es->counted_net = get_net(net);
    es->socket->sk->sk_user_data = es;
    *res = es->socket->sk;
    return 0;
}

int kelm_kernel_bind(struct sock *sk, const void *addr, int addrlen)
{
    return fault_due() ? -EADDRINUSE
                       : kernel_bind(engine_socket(sk)->socket, (struct sockaddr *)addr, addrlen);
}

static void ignore_data(struct sock *sk) {}

/* What is queued from here on is freed with the socket. */
static void stop_reception(struct sock *sk)
{
    WRITE_ONCE(sk->sk_data_ready, ignore_data);
    /* Datagrams are delivered under RCU. Expedited: a namespace has five such sockets. */
    synchronize_rcu_expedited();
}

void kelm_sock_release(struct sock *sk)
{
    struct engine_socket *es = engine_socket(sk);

    if (es->data_ready)
        stop_reception(sk);
    if (es->ipv4)
        sock_release(es->ipv4);
    sock_release(es->socket);
    if (es->counted_net)
        put_net(es->counted_net);
    kfree(es);
}

void kelm_sock_set_data_ready(struct sock *sk, void (*callback)(struct sock *sk), void *user_data)
{
    struct engine_socket *es = engine_socket(sk);

    es->data_ready = callback;
    es->user_data = user_data;
    WRITE_ONCE(sk->sk_data_ready, udp_data_ready);
}

/* The kernel hands out datagrams one at a time. */
void kelm_sock_set_data_ahead(struct sock *sk,
                              void (*callback)(struct sock *sk, const struct kvec *payloads,
                                               size_t count))
{
}

void *kelm_sock_user_data(const struct sock *sk)
{
    return engine_socket(sk)->user_data;
}

void kelm_sock_set_allocation(struct sock *sk, engine_gfp gfp)
{
    struct engine_socket *es = engine_socket(sk);

    sk->sk_allocation = kernel_gfp(gfp);
    if (es->ipv4)
        es->ipv4->sk->sk_allocation = kernel_gfp(gfp);
}

void kelm_sock_set_priority(struct sock *sk, uint32_t priority)
{
    struct engine_socket *es = engine_socket(sk);

    sk->sk_priority = priority;
    if (es->ipv4)
        es->ipv4->sk->sk_priority = priority;
}

void kelm_sock_set_sndbuf(struct sock *sk, int bytes)
{
    struct engine_socket *es = engine_socket(sk);

    sk->sk_sndbuf = bytes;
    if (es->ipv4)
        es->ipv4->sk->sk_sndbuf = bytes;
}

static int send(struct socket *socket, void *name, int namelen, const engine_msghdr *msg,
                const struct kvec *vec, size_t num, size_t size)
{
    struct msghdr kernel_msg = {
        .msg_name = name,
        .msg_namelen = namelen,
        .msg_flags = msg->msg_flags,
        .msg_control = (void *)msg->msg_control,
        .msg_controllen = msg->msg_controllen,
    };

    return kernel_sendmsg(socket, &kernel_msg, (struct kvec *)vec, num, size);
}

int kelm_kernel_sendmsg(struct sock *sk, const engine_msghdr *msg, const struct kvec *vec,
                        size_t num, size_t size)
{
    const struct engine_socket *es = engine_socket(sk);
    const struct sockaddr_in6 *ipv6 = msg->msg_name;
    struct sockaddr_in ipv4 = {.sin_family = AF_INET};

    if (fault_due())
        return -ENOBUFS;
    if (!es->ipv4 || !ipv6_addr_v4mapped(&ipv6->sin6_addr))
        return send(es->socket, (void *)msg->msg_name, msg->msg_namelen, msg, vec, num, size);
    ipv4.sin_addr.s_addr = ipv6->sin6_addr.s6_addr32[3];
    return send(es->ipv4, &ipv4, sizeof(ipv4), msg, vec, num, size);
}
