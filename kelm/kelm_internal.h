// SPDX-License-Identifier: GPL-2.0
//
// What all components of the engine share: the vrf, the counters of a vrf, the lock order.
#pragma once

#include <atomic>
#include <cstdint>

#include "kelm/kelm.h"
#include "kelm/list.h"
#include "kelm/log.h"
#include "kelm/relaxed.h"

struct net;
struct rx_session;
struct sk_buff;
struct sock;
struct tx_packet;

// The lock order, outermost first. A processor takes locks in this order only.
enum lock_rank : unsigned {
    LOCK_RX_TABLE,   // rx_lock: the session tables of all vrfs
    LOCK_RX_SESSION, // rx_session::lock
    LOCK_VRF_LIST,   // kelm_vrf_lock: the list of vrfs
    LOCK_TX_TABLE,   // tx_lock: the packet tables of all vrfs
    LOCK_TX_PACKET,  // tx_packet::lock
    LOCK_DEBUG,      // kelm_debugs.lock
};

inline constexpr std::uint32_t KELM_HASH_SIZE = 32;

// The minimum of a statistics block without a sample.
inline constexpr std::uint32_t NO_MINIMUM = 0xFFFFFFFF;

// The chain of a discriminator in the tables of a vrf.
[[nodiscard]] constexpr std::uint32_t disc_hash(std::uint32_t discriminator)
{
    return discriminator & (KELM_HASH_SIZE - 1);
}

using atomic_counter = std::atomic<std::int32_t>;

inline void count(atomic_counter &counter)
{
    counter.fetch_add(1, std::memory_order_relaxed);
}

// What went wrong in a vrf that nobody could be told about at once. Reported and cleared by
// statistics requests; netlink_stats_fail is not reported.
struct kelm_module_stats {
    atomic_counter rfc_drops;
    atomic_counter rx_packet_missing;
    atomic_counter num_invalid_sessions;
    atomic_counter num_passup_disc_0;
    atomic_counter netlink_packet_change_fail;
    atomic_counter netlink_failure_fail;
    atomic_counter netlink_stats_fail;
    atomic_counter pskb_expand_fail;
    atomic_counter session_stats_no_skb_fail;
    atomic_counter session_stats_send_stats_fail;
    atomic_counter session_stats_broadcast_fail;
};

struct kelm_socket {
    sock *sk; // null when not created
};

// Everything kelm keeps for one network namespace. Reference counted: one reference for
// membership in kelm_vrf_list, one per receive session, one per temporary holder.
struct kelm_vrf {
    list_link vrfs; // kelm_vrf_list, guarded by kelm_vrf_lock
    std::atomic<std::int32_t> refcount;
    struct net *net;            // never changes
    relaxed<std::int32_t> mark; // the sync mark of the last message, see handle_sync
    std::int32_t nrefs;         // references on net that our transmit sockets hold

    std::atomic<std::int32_t> sessions_seq;              // deletions from sessions
    intrusive_list<rx_session> sessions[KELM_HASH_SIZE]; // guarded by rx_lock

    kelm_module_stats stats;

    std::atomic<std::int32_t> packets_seq;             // deletions from packets
    intrusive_list<tx_packet> packets[KELM_HASH_SIZE]; // guarded by tx_lock

    kelm_socket tx_sockets[KELM_TX_SESSION_MAX];
    kelm_socket rx_sockets[KELM_RX_SESSION_MAX];
    sock *netlink_sock; // stands longer than the receive sockets

    list_link leaving;       // vrfs on their way out, after they have left kelm_vrf_list
    bool path_ready_pending; // its packets are still to be started; guarded by kelm_vrf_lock
};

// The first record of a chain with this discriminator, or null.
template<class T>
[[nodiscard]] T *find_in_chain(intrusive_list<T> &chain, std::uint32_t discriminator)
{
    T *record = chain.front();
    while (record != nullptr && record->discriminator != discriminator)
        record = chain.next(*record);
    return record;
}
