// SPDX-License-Identifier: GPL-2.0
//
// The contract between the dump driver and the tables that it dumps.
#pragma once

#include <cstdint>

#include "kelm/kelm_internal.h"

// Who asked for what.
struct dump_request {
    std::uint32_t portid;        // of the agent; 0 when nobody asked
    std::uint32_t seq;           // of its request; 0 when nobody asked
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

// Adds to skb what one table of a vrf holds, as whole messages, from the cursor on. 0 when done
// with this vrf; -1 when the next message does not fit, the cursor then being where to go on.
// Neither repeats nor skips, but starts over when a request deleted something from the table.
// Any context, never sleeps, takes the table's lock.
using dumpfn = int (*)(kelm_vrf *vrf, sk_buff *skb, const dump_cursor &cursor,
                       const dump_request &request);

// What one dump reports of every vrf.
struct dump_phases {
    dumpfn rxdump;
    dumpfn txdump;
    dumpfn moduledump; // may be null
    const char *type;  // for the log
};
