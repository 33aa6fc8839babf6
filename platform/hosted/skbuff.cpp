// SPDX-License-Identifier: GPL-2.0
#include "platform/hosted/skbuff.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

using hosted::skb_block;

namespace
{

[[noreturn]] void fault(const char *what, unsigned int len, unsigned int room)
{
    std::fprintf(stderr, "kelm: socket buffer: %s (%u bytes, room for %u)\n", what, len, room);
    std::abort();
}

skb_block *block_alloc(std::size_t size, gfp_t gfp)
{
    void *memory = kmalloc(sizeof(skb_block) + size, gfp);
    if (memory == nullptr)
        return nullptr;
    auto *block = new (memory) skb_block{.users = 1, .size = static_cast<unsigned int>(size)};
    return block;
}

void block_put(skb_block *block)
{
    if (block != nullptr && block->users.fetch_sub(1, std::memory_order_acq_rel) == 1)
        kfree(block);
}

sk_buff *header_alloc(gfp_t gfp)
{
    void *memory = kmalloc(sizeof(sk_buff), gfp);
    return memory == nullptr ? nullptr : new (memory) sk_buff;
}

unsigned int linear_len(const sk_buff *skb)
{
    return skb->tail - skb->data;
}

// Replaces the memory by a private block in which everything lies shift bytes further back. The
// fragment joins the rest if asked for. False, with nothing changed, without memory.
bool replace_block(sk_buff *skb, unsigned int shift, std::size_t size, bool with_fragment,
                   gfp_t gfp)
{
    if (hosted::skb_may_reallocate != nullptr && !hosted::skb_may_reallocate())
        return false;
    skb_block *block = block_alloc(size, gfp);
    if (block == nullptr)
        return false;
    std::memcpy(block->bytes + shift, skb->block->bytes, skb->tail);
    skb->data += shift;
    skb->tail += shift;
    skb->mac_header += shift;
    skb->network_header += shift;
    if (with_fragment && skb->fragment != nullptr) {
        std::memcpy(block->bytes + skb->tail, skb->fragment->bytes, skb->fragment->size);
        skb->tail += skb->fragment->size;
        block_put(skb->fragment);
        skb->fragment = nullptr;
    }
    block_put(skb->block);
    skb->block = block;
    return true;
}

} // namespace

sk_buff *alloc_skb(unsigned int size, gfp_t gfp)
{
    sk_buff *skb = header_alloc(gfp);
    if (skb == nullptr)
        return nullptr;
    skb->block = block_alloc(size, gfp);
    if (skb->block == nullptr) {
        kfree(skb);
        return nullptr;
    }
    return skb;
}

sk_buff *skb_get(sk_buff *skb)
{
    skb->users.fetch_add(1, std::memory_order_relaxed);
    return skb;
}

void consume_skb(sk_buff *skb)
{
    if (skb == nullptr || skb->users.fetch_sub(1, std::memory_order_acq_rel) != 1)
        return;
    if (skb->secret)
        explicit_bzero(skb->block->bytes, skb->tail); // what has been pulled, too
    block_put(skb->block);
    block_put(skb->fragment);
    kfree(skb);
}

void kfree_skb(sk_buff *skb)
{
    consume_skb(skb);
}

std::uint8_t *skb_data(const sk_buff *skb)
{
    return skb->block->bytes + skb->data;
}

unsigned int skb_len(const sk_buff *skb)
{
    return linear_len(skb) + (skb->fragment != nullptr ? skb->fragment->size : 0);
}

std::uint8_t *skb_head(const sk_buff *skb)
{
    return skb->block->bytes;
}

unsigned int skb_tailroom(const sk_buff *skb)
{
    if (skb->fragment != nullptr)
        return 0;
    const unsigned int len = linear_len(skb);
    if (skb->room_limit == 0 || len == 0)
        return skb->block->size - skb->tail;
    return len < skb->room_limit ? skb->room_limit - len : 0;
}

std::uint8_t *skb_put(sk_buff *skb, unsigned int len)
{
    const unsigned int room = skb->fragment != nullptr ? 0 : skb->block->size - skb->tail;
    if (len > room)
        fault("put beyond the tailroom", len, room);
    std::uint8_t *first = skb->block->bytes + skb->tail;
    skb->tail += len;
    return first;
}

std::uint8_t *skb_push(sk_buff *skb, unsigned int len)
{
    if (len > skb->data)
        fault("push beyond the headroom", len, skb->data);
    skb->data -= len;
    return skb_data(skb);
}

int pskb_expand_head(sk_buff *skb, int nhead, int ntail, gfp_t gfp)
{
    if (nhead < 0 || ntail < 0)
        fault("expansion by a negative size", 0, 0);
    if (skb->users.load(std::memory_order_relaxed) != 1)
        fault("expansion of a buffer that others hold too", 0, 0);
    const auto shift = static_cast<unsigned int>(nhead);
    const std::size_t size = std::size_t{skb->block->size} + shift + static_cast<unsigned>(ntail);
    return replace_block(skb, shift, size, false, gfp) ? 0 : -ENOMEM;
}

int skb_linearize_cow(sk_buff *skb)
{
    const bool shared = skb->block->users.load(std::memory_order_acquire) != 1;
    if (skb->fragment == nullptr && !shared)
        return 0;
    const std::size_t size = std::size_t{skb->block->size} + skb_len(skb) - linear_len(skb);
    return replace_block(skb, 0, size, true, GFP_ATOMIC) ? 0 : -ENOMEM;
}

std::uint8_t *skb_mac_header(const sk_buff *skb)
{
    return skb->block->bytes + skb->mac_header;
}

std::uint8_t *skb_network_header(const sk_buff *skb)
{
    return skb->block->bytes + skb->network_header;
}

int skb_iif(const sk_buff *skb)
{
    return skb->iif;
}

int skb_member_ifindex(const sk_buff *skb)
{
    return skb->member_ifindex;
}

sock *skb_sk(const sk_buff *skb)
{
    return skb->sk;
}

std::uint32_t netlink_skb_portid(const sk_buff *skb)
{
    return skb->portid;
}

void netlink_skb_set_portid(sk_buff *skb, std::uint32_t portid)
{
    skb->portid = portid;
}

namespace hosted
{

sk_buff *skb_copy_bytes(std::span<const std::uint8_t> data, unsigned int headroom, gfp_t gfp)
{
    const auto len = static_cast<unsigned int>(data.size());
    sk_buff *skb = alloc_skb(headroom + len, gfp);
    if (skb == nullptr)
        return nullptr;
    skb->data = headroom;
    skb->tail = headroom;
    if (len > 0)
        std::memcpy(skb_put(skb, len), data.data(), len);
    return skb;
}

sk_buff *skb_clone(const sk_buff *skb, gfp_t gfp)
{
    void *memory = kmalloc(sizeof(sk_buff), gfp);
    if (memory == nullptr)
        return nullptr;
    auto *clone = new (memory) sk_buff{.block = skb->block,
                                       .data = skb->data,
                                       .tail = skb->tail,
                                       .fragment = skb->fragment,
                                       .room_limit = skb->room_limit,
                                       .mac_header = skb->mac_header,
                                       .network_header = skb->network_header,
                                       .iif = skb->iif,
                                       .member_ifindex = skb->member_ifindex,
                                       .portid = skb->portid};
    clone->block->users.fetch_add(1, std::memory_order_relaxed);
    if (clone->fragment != nullptr)
        clone->fragment->users.fetch_add(1, std::memory_order_relaxed);
    return clone;
}

void skb_pull(sk_buff *skb, unsigned int len)
{
    if (len > linear_len(skb))
        fault("pull beyond the data", len, linear_len(skb));
    skb->data += len;
}

bool skb_make_nonlinear(sk_buff *skb, unsigned int keep)
{
    if (skb->fragment != nullptr || keep > linear_len(skb))
        fault("not to be split", keep, linear_len(skb));
    const unsigned int rest = linear_len(skb) - keep;
    skb_block *fragment = block_alloc(rest, GFP_ATOMIC);
    if (fragment == nullptr)
        return false;
    std::memcpy(fragment->bytes, skb_data(skb) + keep, rest);
    skb->fragment = fragment;
    skb->tail -= rest;
    return true;
}

std::span<const std::uint8_t> skb_bytes(const sk_buff *skb)
{
    if (skb->fragment != nullptr)
        fault("contiguous bytes asked of a fragmented buffer", skb_len(skb), linear_len(skb));
    return {skb_data(skb), linear_len(skb)};
}

} // namespace hosted
