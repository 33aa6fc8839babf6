// SPDX-License-Identifier: GPL-2.0
/*
 * Netlink sockets, requests, unicast and multicast. Dumps are in netlink_dump.c.
 *
 * The sockets are made without a reference on the module, so that agents' sockets that outlive a
 * forced unload have nothing to give back to it.
 */
#include "platform/linux/netlink.h"

#include <net/netlink.h>
#include <net/sock.h>

#include "platform/linux/fault.h"
#include "platform/linux/glue.h"

struct srcu_struct agents_inside;

static bool requests_closed;
static void (*engine_input)(struct sk_buff *skb); /* the same for every socket */

/* The requests that are being handled, each in its sender's task. */
struct handled_request {
    struct list_head list;
    const struct task_struct *sender;
    const struct sk_buff *skb;
};

static LIST_HEAD(requests);
static DEFINE_SPINLOCK(requests_lock);

static void handle(struct sk_buff *skb)
{
    struct handled_request request = {.sender = current, .skb = skb};

    spin_lock(&requests_lock);
    list_add(&request.list, &requests);
    spin_unlock(&requests_lock);
    engine_input(skb);
    spin_lock(&requests_lock);
    list_del(&request.list);
    spin_unlock(&requests_lock);
}

/* The sender holds a reference on the socket, which may have been released meanwhile. */
static void input(struct sk_buff *skb)
{
    int inside = srcu_read_lock(&agents_inside);

    if (!READ_ONCE(requests_closed) && !sock_flag(skb->sk, SOCK_DEAD))
        handle(skb);
    srcu_read_unlock(&agents_inside, inside);
}

static const struct sk_buff *current_request(void)
{
    const struct sk_buff *skb = NULL;
    const struct handled_request *request;

    spin_lock(&requests_lock);
    list_for_each_entry(request, &requests, list)
        if (request->sender == current)
            skb = request->skb;
    spin_unlock(&requests_lock);
    return skb;
}

/*
 * Not the sender's privilege alone: a program that runs with more than its user has (setuid) may
 * write to a socket that it was given as its output without knowing.
 */
bool kelm_capable(int capability)
{
    const struct sk_buff *skb = current_request();

    return skb && netlink_capable(skb, capability);
}

struct sock *kelm_netlink_kernel_create(struct net *net, int unit, const engine_netlink_cfg *cfg)
{
    struct netlink_kernel_cfg kernel_cfg = {
        .groups = cfg->groups,
        .input = input,
    };

    engine_input = cfg->input;
    return fault_due() ? NULL : __netlink_kernel_create(net, unit, NULL, &kernel_cfg);
}

void kelm_netlink_kernel_release(struct sock *sk)
{
    netlink_kernel_release(sk);
    synchronize_srcu_expedited(&agents_inside);
}

int netlink_open(void)
{
    return init_srcu_struct(&agents_inside);
}

void netlink_close(void)
{
    cleanup_srcu_struct(&agents_inside);
}

void netlink_close_requests(void)
{
    WRITE_ONCE(requests_closed, true);
    synchronize_srcu(&agents_inside);
}

int kelm_netlink_rcv_skb(struct sk_buff *skb, int (*step)(struct sk_buff *skb, struct nlmsghdr *nlh,
                                                          struct netlink_ext_ack *extack))
{
    return netlink_rcv_skb(skb, step);
}

struct nlmsghdr *kelm___nlmsg_put(struct sk_buff *skb, uint32_t portid, uint32_t seq, int type,
                                  int len, int flags)
{
    return __nlmsg_put(skb, portid, seq, type, len, flags);
}

int kelm_netlink_broadcast(struct sock *sk, struct sk_buff *skb, uint32_t portid, uint32_t group,
                           engine_gfp gfp)
{
    NETLINK_CB(skb).dst_group = group;
    return netlink_broadcast(sk, skb, portid, group, kernel_gfp(gfp));
}

int kelm_netlink_unicast(struct sock *sk, struct sk_buff *skb, uint32_t portid, int nonblock)
{
    return netlink_unicast(sk, skb, portid, nonblock);
}
