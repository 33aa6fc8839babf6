// SPDX-License-Identifier: GPL-2.0
//
// One transmission of a packet.
#pragma once

#include <cstdint>

struct timer_list;
struct tx_packet;

// Module load.
void tx_trigger_init();

// Edits, sends and reschedules one packet. is_callback: as the packet's own timer callback, whose
// reference it settles; else the caller holds tx_lock.
void tx_trigger(tx_packet *packet, bool is_callback);
void tx_trigger_callback(timer_list *timer);

// Has the packet carry the diagnostic (RFC 5880, 4.1) from its next transmission on; 0 asks for
// nothing. Any context, any lock held.
void kelm_tx_latch(tx_packet *packet, std::uint8_t diagnostic);

// Writes the UDP checksum into the packet, if it has the headers for it: with force always, without
// only if authentication changes the packet. The caller holds the packet's lock.
void update_udp_checksum(tx_packet *packet, bool force);
