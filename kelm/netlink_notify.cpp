// SPDX-License-Identifier: GPL-2.0
//
// Notifications: finished messages on their way to the agents of a vrf. The socket takes every
// buffer over; what is lost is counted and logged, never sent again.
#include "kelm/netlink_internal.h"

void kelm_netlink_send_packet_change(kelm_vrf *vrf, sk_buff *skb)
{
    const int err = netlink_broadcast(vrf->netlink_sock, skb, 0, KELM_NLG_NUM_CONTROL, GFP_ATOMIC);
    if (err == 0)
        return;
    netlink_log(2, "Error sending session packet change %d", err);
    count(vrf->stats.netlink_packet_change_fail);
}

void kelm_netlink_send_failure(kelm_vrf *vrf, sk_buff *skb)
{
    const int err =
        netlink_broadcast(vrf->netlink_sock, skb, 0, KELM_NLG_NUM_NOTIFICATION, GFP_ATOMIC);
    if (err == 0)
        return;
    netlink_log(2, "Error sending session failure %d", err);
    count(vrf->stats.netlink_failure_fail);
}

int kelm_netlink_send_stats(kelm_vrf *vrf, sk_buff *skb, std::uint32_t portid)
{
    const int sent = netlink_unicast(vrf->netlink_sock, skb, portid, 1);
    if (sent >= 0)
        return 0;
    netlink_log(2, "Error sending stats %d", sent);
    count(vrf->stats.netlink_stats_fail);
    return sent;
}
