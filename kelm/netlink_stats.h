// SPDX-License-Identifier: GPL-2.0
//
// Statistics for the agents: on request, of one session or by a dump, and periodically.
#pragma once

struct kelm_vrf;
struct netlink_callback;
struct nlmsghdr;
struct sk_buff;

// Module load. session_stats_stop ends the periodic statistics; when it returns, no run is in
// progress or will come.
void stats_requests_init();
void session_stats_stop();

// Request handlers, see handler_fn.
int handle_get_stats(kelm_vrf *vrf, sk_buff *skb, const nlmsghdr *hdr);
int set_session_stats_interval(kelm_vrf *vrf, sk_buff *skb, const nlmsghdr *hdr);

// Fills skb with statistics from where the dump state stands. Positive: call again with a fresh
// buffer; 0: complete. Never sleeps. dump->data is the dump_data.
[[nodiscard]] int send_stats(sk_buff *skb, netlink_callback *dump, bool unsolicited);
