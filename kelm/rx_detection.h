// SPDX-License-Identifier: GPL-2.0
//
// The detection timer of a session: when it runs, and what its expiry does. But for end_detection,
// the caller holds the session's lock.
#pragma once

#include "kelm/kelm.h"

struct kelm_vrf;
struct rx_session;

// Prepares the timer of a new session.
void init_detection(rx_session *session);

// Links the packets of a request to be latched at expiry, in place of those linked so far, up to
// the first that does not exist: 0, or -ENXIO.
[[nodiscard]] int link_tx_packets(rx_session *session, kelm_vrf *vrf,
                                  const kelm_msg_rx_set_session &msg);

// The session has been configured: its timer starts anew, or stops.
void configure_detection(rx_session *session);

// A packet has been accepted, which starts an active timer anew.
void restart_detection(rx_session *session);

// Stops the timer for good and unlinks the packets, of a session that has left its table.
// Returns once no callback of the timer runs. Task context, no lock held.
void end_detection(rx_session *session);
