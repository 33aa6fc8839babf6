/* SPDX-License-Identifier: GPL-2.0 */
/*
 * An agent in C11: kelm.h comes first, alone and without extensions, and what is written through
 * its structures is read by test_kelm_h.cpp through the same ones in C++.
 */
#include "test_kelm_h.h"

#include "kelm.h"

void c_agent_fills(struct kelm_msg_tx_set_packet *tx, struct kelm_msg_rx_set_session *rx,
                   struct bfd_ctrl *ctrl)
{
    tx->type = KELM_TX_SESSION_L2;
    tx->jitter_type = BFD_TX_JITTER_75_90;
    tx->flags = KELM_TX_SEND_OOB | KELM_TX_MYDISC_RTT;
    tx->auth_hdr.sha1.key_digest[BFD_SHA1_DIGEST_LEN - 1] = 0xee;
    tx->packet[0] = 0xff;

    rx->type = KELM_RX_SESSION_MULTIHOP;
    rx->latch_tx_packets[KELM_NUM_LATCH_TX_PACKETS - 1] = 9;
    rx->auth.flags = KELM_AUTH_TTL_254;
    rx->auth_key[KELM_NUM_AUTH_KEYS - 1].key_valid = 1;
    rx->failure_packet[0] = 0xff;

    ctrl->version = BFD_VERSION;
    ctrl->diag = BFD_DIAG_NEIGH_DOWN;
    ctrl->state = BFD_STATE_INIT;
    ctrl->poll = 1;
    ctrl->auth_present = 1;
}
