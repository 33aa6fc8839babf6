// SPDX-License-Identifier: GPL-2.0
//
// What the transmit engine offers to the other components.
#pragma once

#include <cstdint>

#include "kelm/kelm_internal.h"

struct dump_cursor;
struct dump_request;
struct nlmsghdr;

// Module load: module-wide state as it is at first. And after the last vrf is gone: frees the
// deleted packets whose timers are still pending.
void kelm_tx_module_init();
void kelm_tx_release();

// The transmit side of a vrf: its sockets and its packet table. Task context. kelm_tx_init
// returns 0 or -ENOMEM and then leaves nothing behind. kelm_tx_clear deletes every packet.
[[nodiscard]] int kelm_tx_init(kelm_vrf *vrf);
void kelm_tx_clear(kelm_vrf *vrf);
void kelm_tx_free(kelm_vrf *vrf);

// Request handlers, see handler_fn.
int kelm_tx_set_packet(kelm_vrf *vrf, sk_buff *skb, const nlmsghdr *hdr);
int kelm_tx_delete_packet(kelm_vrf *vrf, sk_buff *skb, const nlmsghdr *hdr);

// Starts the transmission of all stored packets; only the first call does. Any context, no lock
// held.
void kelm_set_tx_path_ready();

// The packet of this discriminator in this vrf, or else in another, with a reference taken; null
// if there is none. Any context; takes kelm_vrf_lock and tx_lock.
[[nodiscard]] tx_packet *kelm_tx_get_packet(kelm_vrf *vrf, std::uint32_t discriminator);

// Drops a reference. Any context; takes tx_lock.
void kelm_tx_put_packet(tx_packet *packet);

// Has the packet carry the diagnostic (RFC 5880, 4.1) from its next transmission on; 0 asks for
// nothing. Any context, any lock held.
void kelm_tx_latch(tx_packet *packet, std::uint8_t diagnostic);

[[nodiscard]] std::uint32_t kelm_tx_get_discr(const tx_packet *packet);

// Dumps, see dumpfn: packets that exist, and their statistics. The single variant adds the
// statistics of request.discriminator if there is such a packet and room; it returns 0 always.
int kelm_tx_sync(kelm_vrf *vrf, sk_buff *skb, const dump_cursor &cursor,
                 const dump_request &request);
int kelm_tx_get_stats(kelm_vrf *vrf, sk_buff *skb, const dump_cursor &cursor,
                      const dump_request &request);
int kelm_tx_get_stats_single(kelm_vrf *vrf, sk_buff *skb, const dump_request &request);
