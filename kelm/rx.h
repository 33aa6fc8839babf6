// SPDX-License-Identifier: GPL-2.0
//
// What the receive engine offers to the other components.
#pragma once

#include "kelm/kelm_internal.h"

struct dump_cursor;
struct dump_request;
struct nlmsghdr;

// Module load: module-wide state as it is at first.
void kelm_rx_module_init();

// The receive side of a vrf: its sockets and its session table. Task context. kelm_rx_init returns
// 0 or -ENOMEM and then leaves nothing behind. kelm_rx_clear deletes every session.
[[nodiscard]] int kelm_rx_init(kelm_vrf *vrf);
void kelm_rx_clear(kelm_vrf *vrf);
void kelm_rx_free(kelm_vrf *vrf);

// Request handlers, see handler_fn.
int kelm_rx_set_session(kelm_vrf *vrf, sk_buff *skb, const nlmsghdr *hdr);
int kelm_rx_delete_session(kelm_vrf *vrf, sk_buff *skb, const nlmsghdr *hdr);

// Dumps, see dumpfn: the last frame passed up and the timer state of each session, and their
// statistics. The single variant adds the statistics of request.discriminator if there is such a
// session and room; it returns 0 always.
int kelm_rx_sync(kelm_vrf *vrf, sk_buff *skb, const dump_cursor &cursor,
                 const dump_request &request);
int kelm_rx_get_stats(kelm_vrf *vrf, sk_buff *skb, const dump_cursor &cursor,
                      const dump_request &request);
int kelm_rx_get_stats_single(kelm_vrf *vrf, sk_buff *skb, const dump_request &request);
