/* SPDX-License-Identifier: GPL-2.0 */
/* What the C half of the test of kelm.h offers to the C++ half. */
#pragma once

#include "kelm.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Fills some fields, and the first byte of what follows the fixed parts; all are zero before. */
void c_agent_fills(struct kelm_msg_tx_set_packet *tx, struct kelm_msg_rx_set_session *rx,
                   struct bfd_ctrl *ctrl);

#ifdef __cplusplus
}
#endif
