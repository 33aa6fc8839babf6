// SPDX-License-Identifier: GPL-2.0
//
// When packets go out: whether transmission may start at all, module-wide, and the next
// transmission of each packet.
#pragma once

#include "kelm/relaxed.h"

struct tx_packet;

// Whether the transmit path is ready. Not before the agent says so or the first datagram arrives;
// until then packets are only stored.
extern relaxed<bool> kelm_tx_path_ready;

// Module load: the path is not ready.
void tx_path_init();

// Starts the transmission of all stored packets; only the first call does. Any context, no lock
// held.
void kelm_set_tx_path_ready();

// Arms the packet's timer for its next transmission. The caller holds the packet's lock.
// is_callback: called by the packet's own timer callback, whose reference then belongs to the
// armed timer; true is returned if somebody else had armed the timer, and taken a reference,
// meanwhile: the caller has one too many. Otherwise false, and a timer that was not pending
// gets a reference of its own.
[[nodiscard]] bool schedule_packet(tx_packet *packet, bool is_callback);
