// SPDX-License-Identifier: GPL-2.0
//
// Socket buffers: reference-counted, with headroom in front of and tailroom behind the data.
//
// A received buffer has its link-layer and network header positions set, its data start at the
// UDP payload, and the headers before that in the same memory.
#pragma once

#include <cstdint>

#include "platform/label.h"
#include "platform/memory.h"

struct sk_buff;
struct sock;

extern "C" {

// An empty buffer with size bytes of tailroom at least and one reference, or null.
[[nodiscard]] sk_buff *alloc_skb(unsigned int size, gfp_t gfp) KELM_PLATFORM(alloc_skb);

// Takes one more reference and returns the buffer. Any context.
sk_buff *skb_get(sk_buff *skb) KELM_PLATFORM(skb_get);

// Drop a reference: after normal use, or because of an error. Null is ignored. Any context.
void consume_skb(sk_buff *skb) KELM_PLATFORM(consume_skb);
void kfree_skb(sk_buff *skb) KELM_PLATFORM(kfree_skb);

// Start of the data, its length, and the start of the memory that holds it.
[[nodiscard]] std::uint8_t *skb_data(const sk_buff *skb) KELM_PLATFORM(skb_data);
[[nodiscard]] unsigned int skb_len(const sk_buff *skb) KELM_PLATFORM(skb_len);
[[nodiscard]] std::uint8_t *skb_head(const sk_buff *skb) KELM_PLATFORM(skb_head);

// Free bytes behind the data; 0 for a buffer that is not contiguous.
[[nodiscard]] unsigned int skb_tailroom(const sk_buff *skb) KELM_PLATFORM(skb_tailroom);

// Extends the data by len bytes at its end, which must be within the tailroom, and returns the
// first of them; they are uninitialised.
std::uint8_t *skb_put(sk_buff *skb, unsigned int len) KELM_PLATFORM(skb_put);

// Moves the data start back by len bytes, within the headroom, and returns it.
std::uint8_t *skb_push(sk_buff *skb, unsigned int len) KELM_PLATFORM(skb_push);

// Gives a buffer of which the caller has the only reference nhead more bytes of headroom and
// ntail more of tailroom. 0, or a negative error number with nothing changed. The data may
// move; header positions move with it, pointers into it do not.
[[nodiscard]] int pskb_expand_head(sk_buff *skb, int nhead, int ntail, gfp_t gfp)
    KELM_PLATFORM(pskb_expand_head);

// Makes all of the data contiguous and private to the caller, so that it can be read through
// skb_data and written. Allocates without sleeping, if at all. 0, or -ENOMEM with nothing
// changed. The data may move.
[[nodiscard]] int skb_linearize_cow(sk_buff *skb) KELM_PLATFORM(skb_linearize_cow);

// Positions of the link-layer and the network header of a received buffer.
[[nodiscard]] std::uint8_t *skb_mac_header(const sk_buff *skb) KELM_PLATFORM(skb_mac_header);
[[nodiscard]] std::uint8_t *skb_network_header(const sk_buff *skb)
    KELM_PLATFORM(skb_network_header);

// Index of the interface on which a received buffer arrived, and of the member link of a link
// aggregate, 0 where the host cannot tell.
[[nodiscard]] int skb_iif(const sk_buff *skb) KELM_PLATFORM(skb_iif);
[[nodiscard]] int skb_member_ifindex(const sk_buff *skb) KELM_PLATFORM(skb_member_ifindex);

// The kernel socket on which a request arrived.
[[nodiscard]] sock *skb_sk(const sk_buff *skb) KELM_PLATFORM(skb_sk);

// Port id of the agent that sent a request; 0 for a buffer that the kernel sends.
[[nodiscard]] std::uint32_t netlink_skb_portid(const sk_buff *skb)
    KELM_PLATFORM(netlink_skb_portid);
void netlink_skb_set_portid(sk_buff *skb, std::uint32_t portid)
    KELM_PLATFORM(netlink_skb_set_portid);
}
