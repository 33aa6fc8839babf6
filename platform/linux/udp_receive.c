// SPDX-License-Identifier: GPL-2.0
/*
 * Reception. The engine is called once for each good datagram: it is taken from the queue and
 * looked at first, and waits here for the engine to ask.
 */
#include <linux/percpu.h>

#include "platform/linux/compat.h"
#include "platform/linux/glue.h"
#include "platform/linux/socket.h"

/* The datagram of the callback that runs on this processor; in softirq there is only one. */
static DEFINE_PER_CPU(struct sk_buff *, received);

/* An error of the socket (of "ss --kill") comes before the datagrams. */
static struct sk_buff *receive(struct sock *sk)
{
    struct sk_buff *skb;
    int err;

    do {
        skb = compat_recv_udp(sk, &err);
    } while (!skb && err != -EAGAIN);
    return skb;
}

/* The kernel verifies long datagrams only when they are copied to a reader. */
static bool is_good(struct sk_buff *skb)
{
    skb->dev = NULL; /* no device here, but UDP's scratch space */
    return !udp_lib_checksum_complete(skb);
}

/* Takes off what the stack has left on the buffer, which may be sent to agents as it is. */
static void strip(struct sk_buff *skb)
{
    int iif = skb->skb_iif;

    skb_orphan(skb);
    skb_scrub_packet(skb, true);
    skb->skb_iif = iif;
    skb->ip_summed = CHECKSUM_NONE;
    memset(skb->cb, 0, sizeof(skb->cb));
    /* From a device without a link layer. */
    if (!skb_mac_header_was_set(skb) || skb->mac_header > skb->network_header)
        skb->mac_header = skb->network_header;
}

/* Until the queue is empty: newer kernels queue several datagrams for one call. */
void udp_data_ready(struct sock *sk)
{
    struct sk_buff *skb;

    while ((skb = receive(sk)) != NULL) {
        if (!is_good(skb)) {
            atomic_inc(&sk->sk_drops);
            kfree_skb(skb);
            continue;
        }
        strip(skb);
        this_cpu_write(received, skb);
        engine_socket(sk)->data_ready(sk);
    }
}

struct sk_buff *kelm___skb_recv_udp(struct sock *sk)
{
    return this_cpu_xchg(received, NULL);
}
