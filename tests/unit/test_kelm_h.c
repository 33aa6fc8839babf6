/* SPDX-License-Identifier: GPL-2.0 */
/*
 * An agent in C11: kelm.h comes first, alone and without extensions, and what is written through
 * its structures is read by test_kelm_h.cpp through the same ones in C++.
 */
#include "kelm.h"

#include <string.h>

#include "test_kelm_h.h"

static void fill_control_packet(uint8_t *bytes, uint8_t section_len)
{
    struct bfd_ctrl ctrl;
    memset(&ctrl, 0, sizeof ctrl);
    ctrl.version = BFD_VERSION;
    ctrl.diag = BFD_DIAG_NEIGH_DOWN;
    ctrl.state = BFD_STATE_INIT;
    ctrl.poll = 1;
    ctrl.auth_present = 1;
    ctrl.detect_multiplier = 3;
    ctrl.len = (uint8_t)(sizeof ctrl + section_len);
    memcpy(bytes, &ctrl, sizeof ctrl);
}

size_t c_agent_tx_set_packet(void *room, size_t size)
{
    struct kelm_msg_tx_set_packet *msg = room;
    const uint32_t packet_len = sizeof(struct bfd_ctrl) + sizeof(struct bfd_auth_sha1);
    if (size < sizeof *msg + packet_len)
        return 0;
    memset(room, 0, size);
    msg->header.discriminator = 5;
    msg->type = KELM_TX_SESSION_L2;
    msg->jitter_type = BFD_TX_JITTER_75_90;
    msg->period = 300000;
    msg->flags = KELM_TX_SEND_OOB | KELM_TX_MYDISC_RTT;
    msg->auth.type = BFD_AUTH_METICULOUS_SHA1;
    msg->auth_hdr.sha1.key_digest[BFD_SHA1_DIGEST_LEN - 1] = 0xee;
    msg->packet_len = packet_len;
    fill_control_packet(msg->packet, sizeof(struct bfd_auth_sha1));
    msg->packet[packet_len - 1] = 0xff;
    return sizeof *msg + packet_len;
}

size_t c_agent_rx_set_session(void *room, size_t size)
{
    struct kelm_msg_rx_set_session *msg = room;
    if (size < sizeof *msg + 2)
        return 0;
    memset(room, 0, size);
    msg->header.discriminator = 5;
    msg->type = KELM_RX_SESSION_MULTIHOP;
    msg->multiplier = 3;
    msg->latch_tx_packets[KELM_NUM_LATCH_TX_PACKETS - 1] = 9;
    msg->auth.flags = KELM_AUTH_TTL_254;
    msg->auth_key[KELM_NUM_AUTH_KEYS - 1].key_valid = 1;
    msg->failure_packet_len = 2;
    msg->failure_packet[1] = 0xff;
    return sizeof *msg + 2;
}
