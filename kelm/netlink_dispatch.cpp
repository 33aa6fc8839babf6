// SPDX-License-Identifier: GPL-2.0
//
// Dispatch: every datagram that an agent sends to a vrf's netlink socket is split into messages
// here, and each message is checked for its type and the sender's privilege, stamped with the
// sync mark, and handed to its handler. Runs in the sending task; several may run at once.
#include <array>

#include "kelm/message.h"
#include "kelm/netlink_internal.h"
#include "kelm/rx.h"
#include "kelm/tx.h"
#include "platform/capability.h"
#include "platform/err.h"

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

int process_message(sk_buff *skb, nlmsghdr *hdr, netlink_ext_ack *)
{
    const unsigned type = hdr->nlmsg_type;
    netlink_log(3, "Message has type %d", type);
    if (type < KELM_MSG_MIN || type >= KELM_MSG_MAX)
        return -ENOMSG;
    const handler_entry &entry = handlers[type];
    if (entry.needs_net_admin && !capable(CAP_NET_ADMIN))
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
