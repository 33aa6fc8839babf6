// SPDX-License-Identifier: GPL-2.0
//
// Socket buffers of the hosts: one block of memory with the data somewhere in it, and optionally
// a fragment elsewhere that continues the data. All positions are offsets into the block, so they
// hold when the block is replaced. A clone shares the block of its original.
//
// Everything is allocated through kmalloc, so a host that can fail an allocation can fail any
// operation here. Running over the head- or tailroom ends the process with a message.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/skbuff.h"

namespace hosted
{

// Reference-counted bytes.
struct skb_block {
    std::atomic<int> users;
    unsigned int size;
    std::uint8_t bytes[];
};

} // namespace hosted

struct sk_buff {
    sk_buff *next = nullptr; // for whatever queue holds it
    hosted::skb_block *block = nullptr;
    unsigned int data = 0; // start of the data in the block
    unsigned int tail = 0; // end of the part of it that is in the block
    // All of its bytes are the rest of the data; null when the data is contiguous.
    hosted::skb_block *fragment = nullptr;
    // If not 0: how much data there may be in all, once there is any.
    unsigned int room_limit = 0;
    unsigned int mac_header = 0;
    unsigned int network_header = 0;
    int iif = 0;
    int member_ifindex = 0;
    sock *sk = nullptr;
    std::uint32_t portid = 0;
    std::atomic<int> users = 1;
    bool secret = false; // the data is wiped when the buffer goes
};

namespace hosted
{

// A buffer with headroom free bytes in front of the copied data, or null.
[[nodiscard]] sk_buff *skb_copy_bytes(std::span<const std::uint8_t> data, unsigned int headroom,
                                      gfp_t gfp);

// A second buffer on the same memory, or null.
[[nodiscard]] sk_buff *skb_clone(const sk_buff *skb, gfp_t gfp);

// Drops len bytes from the front of the data.
void skb_pull(sk_buff *skb, unsigned int len);

// Moves the data behind its first keep bytes into a fragment. False without memory.
[[nodiscard]] bool skb_make_nonlinear(sk_buff *skb, unsigned int keep);

// The data of a contiguous buffer.
[[nodiscard]] std::span<const std::uint8_t> skb_bytes(const sk_buff *skb);

// Asked, where set, whether pskb_expand_head and skb_linearize_cow may replace the memory;
// false makes them fail. Set before the engine starts.
inline bool (*skb_may_reallocate)() = nullptr;

} // namespace hosted
