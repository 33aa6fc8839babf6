// SPDX-License-Identifier: GPL-2.0
//
// Dumps: what a vrf holds, as messages, one datagram at a time. Between datagrams only a dump's
// dump_data and its slots remember where it stands. A vrf is dumped in three phases: sessions,
// packets, module counters.
#pragma once

#include <cstdint>

#include "kelm/netlink_vrf.h"
#include "platform/netlink.h"

// Who asked for what.
struct dump_request {
    std::uint32_t portid;        // of the agent; 0 without a request
    std::uint32_t seq;           // of its request; 0 without one
    std::uint32_t discriminator; // 0 for everything
    std::uint32_t flags;         // KELM_STATS_*
    bool unsolicited;            // the periodic broadcast
};

// Where a walk stands, between the datagrams of a dump; all 0 when it starts.
struct dump_cursor {
    long &bucket;
    long &chain_depth;
    long *table_seq; // the table's count of deletions when the walk began; null without a table
};

// Adds to skb what one phase reports of a vrf, as whole messages, from the cursor on. 0 when done
// with this vrf; -1 when the next message does not fit, the cursor then being where to go on.
// Neither repeats nor skips, but starts over when a request deleted something from the table.
// Any context, never sleeps, takes the table's lock.
using dumpfn = int (*)(kelm_vrf *vrf, sk_buff *skb, const dump_cursor &cursor,
                       const dump_request &request);

// Sessions: the last frame passed up and the state of the timer; the statistics.
int kelm_rx_sync(kelm_vrf *vrf, sk_buff *skb, const dump_cursor &cursor,
                 const dump_request &request);
int kelm_rx_get_stats(kelm_vrf *vrf, sk_buff *skb, const dump_cursor &cursor,
                      const dump_request &request);

// Packets: that they exist; the statistics.
int kelm_tx_sync(kelm_vrf *vrf, sk_buff *skb, const dump_cursor &cursor,
                 const dump_request &request);
int kelm_tx_get_stats(kelm_vrf *vrf, sk_buff *skb, const dump_cursor &cursor,
                      const dump_request &request);

// Add the statistics of request.discriminator alone, if there is such a record and room.
void kelm_rx_get_stats_single(kelm_vrf *vrf, sk_buff *skb, const dump_request &request);
void kelm_tx_get_stats_single(kelm_vrf *vrf, sk_buff *skb, const dump_request &request);

// What one dump reports of every vrf.
struct dump_kind {
    const char *type; // for the log
    dumpfn phases[3]; // sessions, packets, module counters; null for none
};

// What a dump covers; owns the reference on the vrf that it is visiting.
struct dump_data {
    vrf_ref vrf; // none once a walk over all vrfs has finished
    std::uint32_t discriminator;
    std::uint32_t flags; // KELM_STATS_*
};

// The slots of netlink_callback::args.
enum dump_slot {
    slot_phase,
    slot_bucket,
    slot_chain_depth,
    slot_rx_seq,
    slot_tx_seq,
    slot_in_progress, // a walk over all vrfs has entered its first one
};

// Starts the dump of a request: fn fills its datagrams, and it begins at vrf. Task context.
[[nodiscard]] int start_dump(kelm_vrf *vrf, sk_buff *skb, const nlmsghdr *hdr,
                             std::uint32_t discriminator, std::uint32_t flags,
                             int (*fn)(sk_buff *skb, netlink_callback *dump));

// Adds one vrf to a dump, from where its state stands. Positive: call again with a fresh buffer; 0:
// complete. Never sleeps. dump->data is the dump_data.
[[nodiscard]] int dump_rxtx(sk_buff *skb, netlink_callback *dump, const dump_kind &kind,
                            bool unsolicited);

// Goes to the beginning of a phase.
void enter_phase(netlink_callback *dump, long phase);
