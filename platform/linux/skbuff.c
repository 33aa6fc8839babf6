// SPDX-License-Identifier: GPL-2.0
#include "platform/linux/fault.h"
#include "platform/linux/glue.h"

struct sk_buff *kelm_alloc_skb(unsigned int size, engine_gfp gfp)
{
    return fault_due() ? NULL : alloc_skb(size, kernel_gfp(gfp) | __GFP_NOWARN);
}

struct sk_buff *kelm_skb_get(struct sk_buff *skb)
{
    return skb_get(skb);
}

void kelm_consume_skb(struct sk_buff *skb)
{
    consume_skb(skb);
}

void kelm_kfree_skb(struct sk_buff *skb)
{
    kfree_skb(skb);
}

uint8_t *kelm_skb_data(const struct sk_buff *skb)
{
    return skb->data;
}

unsigned int kelm_skb_len(const struct sk_buff *skb)
{
    return skb->len;
}

uint8_t *kelm_skb_head(const struct sk_buff *skb)
{
    return skb->head;
}

/* What is reserved is for the first message alone: see netlink_dump.c. */
unsigned int kelm_skb_tailroom(const struct sk_buff *skb)
{
    unsigned int room = skb_tailroom(skb);
    unsigned int reserved = skb->len ? skb->reserved_tailroom : 0;

    return room > reserved ? room - reserved : 0;
}

uint8_t *kelm_skb_put(struct sk_buff *skb, unsigned int len)
{
    return skb_put(skb, len);
}

uint8_t *kelm_skb_push(struct sk_buff *skb, unsigned int len)
{
    return skb_push(skb, len);
}

int kelm_pskb_expand_head(struct sk_buff *skb, int nhead, int ntail, engine_gfp gfp)
{
    return fault_due() ? -ENOMEM
                       : pskb_expand_head(skb, nhead, ntail, kernel_gfp(gfp) | __GFP_NOWARN);
}

int kelm_skb_linearize_cow(struct sk_buff *skb)
{
    return fault_due() ? -ENOMEM : skb_linearize_cow(skb);
}

uint8_t *kelm_skb_mac_header(const struct sk_buff *skb)
{
    return skb_mac_header(skb);
}

uint8_t *kelm_skb_network_header(const struct sk_buff *skb)
{
    return skb_network_header(skb);
}

int kelm_skb_iif(const struct sk_buff *skb)
{
    return skb->skb_iif;
}

/* By the time a datagram reaches its socket, the kernel has forgotten the member link. */
int kelm_skb_member_ifindex(const struct sk_buff *skb)
{
    return 0;
}

struct sock *kelm_skb_sk(const struct sk_buff *skb)
{
    return skb->sk;
}

uint32_t kelm_netlink_skb_portid(const struct sk_buff *skb)
{
    return NETLINK_CB(skb).portid;
}

void kelm_netlink_skb_set_portid(struct sk_buff *skb, uint32_t portid)
{
    NETLINK_CB(skb).portid = portid;
}
