// SPDX-License-Identifier: GPL-2.0
//
// Configuration of transmit packets: the set and delete requests. Handlers, see handler_fn.
#pragma once

struct kelm_vrf;
struct nlmsghdr;
struct sk_buff;

int kelm_tx_set_packet(kelm_vrf *vrf, sk_buff *skb, const nlmsghdr *hdr);
int kelm_tx_delete_packet(kelm_vrf *vrf, sk_buff *skb, const nlmsghdr *hdr);
