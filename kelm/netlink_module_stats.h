// SPDX-License-Identifier: GPL-2.0
//
// Module statistics: what went wrong in a vrf and could not be reported at once. Reported and
// cleared by statistics requests.
#pragma once

#include <atomic>
#include <cstdint>

struct dump_cursor;
struct dump_request;
struct kelm_vrf;
struct sk_buff;

using atomic_counter = std::atomic<std::int32_t>;

inline void count(atomic_counter &counter)
{
    counter.fetch_add(1, std::memory_order_relaxed);
}

struct kelm_module_stats {
    atomic_counter rfc_drops;
    atomic_counter rx_packet_missing;
    atomic_counter num_invalid_sessions;
    atomic_counter num_passup_disc_0;
    atomic_counter num_not_passed_up;
    atomic_counter netlink_packet_change_fail;
    atomic_counter netlink_failure_fail;
    atomic_counter netlink_stats_fail; // not reported
    atomic_counter pskb_expand_fail;
    atomic_counter session_stats_no_skb_fail;
    atomic_counter session_stats_send_stats_fail;
    atomic_counter session_stats_broadcast_fail;
};

// Module load.
void module_stats_init();

// The third phase of a statistics dump, see dumpfn: the counters of the vrf, if the request asks
// for them.
int module_get_stats(kelm_vrf *vrf, sk_buff *skb, const dump_cursor &cursor,
                     const dump_request &request);
