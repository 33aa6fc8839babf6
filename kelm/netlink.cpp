// SPDX-License-Identifier: GPL-2.0
//
// Every datagram that an agent sends is split into messages, and each message is checked for its
// type and the sender's privilege, marks its vrf as claimed, and goes to its handler. Runs in the
// sending task; several may run at once.
#include "kelm/netlink.h"

#include <array>

#include "kelm/kelm_internal.h"
#include "kelm/kelm_layout.h" // asserts what the handlers rely on
#include "kelm/log.h"
#include "kelm/message.h"
#include "kelm/netlink_stats.h"
#include "kelm/netlink_sync.h"
#include "kelm/netlink_vrf.h"
#include "kelm/rx_table.h"
#include "kelm/tx_config.h"
#include "kelm/tx_schedule.h"
#include "platform/capability.h"
#include "platform/err.h"
#include "platform/module.h"

namespace
{
// Refuses the types that only the module sends.
int eperm(kelm_vrf *, sk_buff *, const nlmsghdr *)
{
    return -EPERM;
}

int kelm_send_tx_path_ready(kelm_vrf *, sk_buff *, const nlmsghdr *hdr)
{
    const auto *msg = request_body<kelm_msg_tx_path_ready>(hdr);
    if (msg == nullptr)
        return -EINVAL;
    if (msg->header.discriminator != 0)
        return -ENODATA;
    netlink_log(2, "Tx path ready from agent");
    kelm_set_tx_path_ready();
    return 0;
}

struct handler_entry {
    handler_fn handler;
    bool needs_net_admin;
};

// Indexed by message type; the types below KELM_MSG_MIN have no entry.
constexpr auto handlers = [] {
    std::array<handler_entry, KELM_MSG_MAX> table = {};
    table[KELM_MSG_TX_SET_PACKET] = {kelm_tx_set_packet, true};
    table[KELM_MSG_TX_DELETE_PACKET] = {kelm_tx_delete_packet, true};
    table[KELM_MSG_TX_STATS] = {eperm, false};
    table[KELM_MSG_TX_SYNC] = {eperm, false};
    table[KELM_MSG_RX_SET_SESSION] = {kelm_rx_set_session, true};
    table[KELM_MSG_RX_DELETE_SESSION] = {kelm_rx_delete_session, true};
    table[KELM_MSG_RX_STATS] = {eperm, false};
    table[KELM_MSG_RX_PACKET_CHANGE] = {eperm, false};
    table[KELM_MSG_RX_SYNC] = {eperm, false};
    table[KELM_MSG_GET_STATS] = {handle_get_stats, false};
    table[KELM_MSG_SYNC] = {handle_sync, false};
    table[KELM_MSG_SESSION_FAILURE] = {eperm, false};
    // The privilege depends on what is set; the handler checks it.
    table[KELM_MSG_SET_DEBUG_LEVEL] = {set_debug_level, false};
    table[KELM_MSG_TX_PATH_READY] = {kelm_send_tx_path_ready, false};
    table[KELM_MSG_MODULE_STATS] = {eperm, false};
    table[KELM_MSG_SET_SESSION_STATS_INTERVAL] = {set_session_stats_interval, true};
    return table;
}();

// Whether a request only reads the statistics of the namespace that it comes from. One that is too
// short changes nothing either, and is refused with an error of its own.
bool only_reads_own_stats(const nlmsghdr *hdr)
{
    if (hdr->nlmsg_type != KELM_MSG_GET_STATS)
        return false;
    const auto *msg = request_body<kelm_msg_get_stats>(hdr);
    return msg == nullptr || (msg->flags & (KELM_STATS_CLEAR | KELM_STATS_ALL_VRFS)) == 0;
}

bool needs_net_admin(const handler_entry &entry, const nlmsghdr *hdr)
{
    return entry.needs_net_admin || (kelm_strict && !only_reads_own_stats(hdr));
}

int process_message(sk_buff *skb, nlmsghdr *hdr, netlink_ext_ack *)
{
    const unsigned type = hdr->nlmsg_type;
    netlink_log(3, "Message has type %d", type);
    if (type < KELM_MSG_MIN || type >= KELM_MSG_MAX)
        return -ENOMSG;
    const handler_entry &entry = handlers[type];
    if (needs_net_admin(entry, hdr) && !capable(CAP_NET_ADMIN))
        return -EPERM;
    const vrf_ref vrf = find_vrf(sock_net(skb_sk(skb)));
    if (!vrf)
        return -ENODEV;
    vrf->mark = std::int32_t{vrf_mark};
    return entry.handler(vrf.get(), skb, hdr);
}
} // namespace

void receive_netlink(sk_buff *skb)
{
    netlink_log(3, "Received netlink message (len %u)", skb_len(skb));
    netlink_rcv_skb(skb, process_message);
}

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
