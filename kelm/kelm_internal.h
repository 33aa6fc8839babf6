// SPDX-License-Identifier: GPL-2.0
//
// What all components of the engine share: the vrf and the lock order.
#pragma once

#include <atomic>
#include <cstdint>

#include "kelm/kelm.h"
#include "kelm/list.h"
#include "kelm/netlink_module_stats.h"
#include "kelm/pass_up_limit.h"
#include "kelm/record_table.h"
#include "kelm/relaxed.h"

struct net;
struct rx_session;
struct sock;
struct tx_packet;

// The lock order, outermost first. A processor takes locks in this order only.
enum lock_rank : unsigned {
    rank_rx_table,   // rx_lock: the session tables of all vrfs
    rank_rx_session, // rx_session::lock
    rank_vrf_list,   // kelm_vrf_lock: the list of vrfs
    rank_tx_table,   // tx_lock: the packet tables of all vrfs
    rank_tx_packet,  // tx_packet::lock
    rank_debug,      // kelm_debugs.lock
};

// Everything kelm keeps for one network namespace. Reference counted: one reference for
// membership in kelm_vrf_list, one per receive session, one per temporary holder.
struct kelm_vrf {
    list_link vrfs; // kelm_vrf_list, guarded by kelm_vrf_lock
    std::atomic<std::int32_t> refcount;
    struct net *net;            // never changes
    relaxed<std::int32_t> mark; // the sync mark of the last message, see handle_sync
    std::int32_t nrefs;         // references on net that our transmit sockets hold

    record_table<rx_session> sessions; // guarded by rx_lock
    record_table<tx_packet> packets;   // guarded by tx_lock
    kelm_module_stats stats;
    pass_up_limit strangers; // packets without a session

    // Null where not created.
    sock *tx_sockets[KELM_TX_SESSION_MAX];
    sock *rx_sockets[KELM_RX_SESSION_MAX];
    sock *netlink_sock; // released after the receive sockets, whose callbacks use it

    list_link leaving;       // vrfs on their way out, after they have left kelm_vrf_list
    bool path_ready_pending; // its packets are still to be started; guarded by kelm_vrf_lock
};
