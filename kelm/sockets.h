// SPDX-License-Identifier: GPL-2.0
//
// The sockets on which a vrf receives and sends packets, one for each type of session. Transmit
// sockets hold the namespace, and nrefs counts them; receive sockets do not.
#pragma once

#include <cstdint>

#include "kelm/kelm_internal.h"

// Create the sockets of a new vrf. 0, or -ENOMEM with no socket left. Task context.
[[nodiscard]] int create_rx_sockets(kelm_vrf *vrf);
[[nodiscard]] int create_tx_sockets(kelm_vrf *vrf);

// Release those that there are. Once the receive sockets are released, no datagram of theirs is
// being handled any more. Task context.
void release_rx_sockets(kelm_vrf *vrf);
void release_tx_sockets(kelm_vrf *vrf);
