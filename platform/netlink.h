// SPDX-License-Identifier: GPL-2.0
//
// Netlink: kernel sockets, the request loop, dumps, unicast and multicast.
#pragma once

#include <cstdint>
#include <linux/netlink.h>

#include "platform/label.h"
#include "platform/net.h"
#include "platform/skbuff.h"

struct netlink_ext_ack;

struct netlink_kernel_cfg {
    unsigned int groups; // number of multicast groups
    // Called once per datagram that an agent sends, in the context of the sending task and
    // with no lock held; several may run at once. The buffer stays the caller's.
    void (*input)(sk_buff *skb);
};

// One dump in progress, from netlink_dump_start to done.
struct netlink_callback {
    sk_buff *skb;        // the request, valid for the whole dump; null where there is none
    const nlmsghdr *nlh; // its header; null where there is none
    void *data;          // the control's data at start, then whatever start left there
    long args[6];        // the dump's own state, 0 at first
    bool no_room;        // false at first; see dump
};

struct netlink_dump_control {
    // Called once before the first dump call, before netlink_dump_start returns. An error
    // ends the request with that error, and done is not called.
    int (*start)(netlink_callback *cb);
    // Fills one datagram. Positive: call again with a fresh buffer; 0: the dump is over. Sets
    // no_room if that is because the next message does not fit even into the empty buffer: the
    // host can clear it and call again with a larger one.
    // In the context of the requesting task, or of one that reads the agent's socket; one call
    // at a time per dump, no lock held.
    int (*dump)(sk_buff *skb, netlink_callback *cb);
    // Called once for every dump whose start succeeded: after its last datagram, or when the
    // agent's socket goes away. Task context.
    int (*done)(netlink_callback *cb);
    void *data;                   // handed to start; need not outlive netlink_dump_start
    std::uint32_t min_dump_alloc; // least room of a dump datagram, bytes
};

extern "C" {

using netlink_step = int (*)(sk_buff *skb, nlmsghdr *nlh, netlink_ext_ack *extack);

// A kernel socket of a netlink unit in a namespace, or null. Holds no reference on the
// namespace. Task context.
[[nodiscard]] sock *netlink_kernel_create(net *net, int unit, const netlink_kernel_cfg *cfg)
    KELM_PLATFORM(netlink_kernel_create);

// Returns once no input runs or will run. Task context; also from a notifier, with whatever the
// host locks around one.
void netlink_kernel_release(sock *sk) KELM_PLATFORM(netlink_kernel_release);

// Walks the messages of one datagram and calls the step for each that fits, carries
// NLM_F_REQUEST and has a type of at least 16. Acknowledges a message with the step's result
// if that is not 0 or the message asks for it, but not if the result is -EINTR. Messages
// without NLM_F_REQUEST or of a lower type are only acknowledged, if they ask for it. A length
// shorter than a header or longer than the rest ends the walk. Returns 0.
int netlink_rcv_skb(sk_buff *skb, netlink_step step) KELM_PLATFORM(netlink_rcv_skb);

// Starts a dump for the agent that sent skb and makes its first datagram. -EINTR if it was
// started; -EBUSY if the agent has another dump in progress; else start's or another negative
// error number. The request's own task.
[[nodiscard]] int netlink_dump_start(sock *sk, sk_buff *skb, const nlmsghdr *nlh,
                                     const netlink_dump_control *control)
    KELM_PLATFORM(netlink_dump_start);

// Appends a message with a body of len bytes; the header is filled, the padding is zero, the
// body is uninitialised. The aligned size must be within the tailroom.
nlmsghdr *__nlmsg_put(sk_buff *skb, std::uint32_t portid, std::uint32_t seq, int type, int len,
                      int flags) KELM_PLATFORM(__nlmsg_put);

// Delivers the buffer to every subscriber of a group, or to one port. The reference is taken over
// whatever the result; others may hold more, and the host does not change the data. A
// subscriber without room misses the message. Any context.
//
// netlink_broadcast: 0 if a subscriber got it; -ESRCH without subscribers; which negative error
// number it is when no subscriber had room is the host's choice.
[[nodiscard]] int netlink_broadcast(sock *sk, sk_buff *skb, std::uint32_t portid,
                                    std::uint32_t group, gfp_t gfp)
    KELM_PLATFORM(netlink_broadcast);

// netlink_unicast: the number of bytes delivered; -ECONNREFUSED if the port does not exist;
// with nonblock, -EAGAIN if its queue is full.
[[nodiscard]] int netlink_unicast(sock *sk, sk_buff *skb, std::uint32_t portid, int nonblock)
    KELM_PLATFORM(netlink_unicast);
}
