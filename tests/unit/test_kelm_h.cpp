// SPDX-License-Identifier: GPL-2.0
//
// kelm.h means the same in C11 and in C++20. That its layouts are right is asserted by itself.
#include "kelm.h"

#include "test_kelm_h.h"

#include <gtest/gtest.h>

namespace
{

alignas(8) std::uint8_t room[256];

TEST(kelm_h, tx_set_packet_crosses_from_c_to_cpp)
{
    ASSERT_EQ(c_agent_tx_set_packet(room, sizeof room), 72u + 24 + 28);
    const auto *msg = reinterpret_cast<const kelm_msg_tx_set_packet *>(room);
    EXPECT_EQ(msg->header.discriminator, 5u);
    EXPECT_EQ(msg->type, KELM_TX_SESSION_L2);
    EXPECT_EQ(msg->jitter_type, BFD_TX_JITTER_75_90);
    EXPECT_EQ(msg->period, 300000u);
    EXPECT_EQ(msg->flags, KELM_TX_SEND_OOB | KELM_TX_MYDISC_RTT);
    EXPECT_EQ(msg->auth.type, BFD_AUTH_METICULOUS_SHA1);
    EXPECT_EQ(msg->auth_hdr.sha1.key_digest[19], 0xee);
    EXPECT_EQ(room[67], 0xee);
    ASSERT_EQ(msg->packet_len, 52u);
    EXPECT_EQ(msg->packet, room + 72);
    EXPECT_EQ(msg->packet[51], 0xff);

    const auto *ctrl = reinterpret_cast<const bfd_ctrl *>(msg->packet);
    EXPECT_EQ(ctrl->state, BFD_STATE_INIT);
    EXPECT_EQ(ctrl->diag, BFD_DIAG_NEIGH_DOWN);
    EXPECT_EQ(room[72], 0x23); // and on the wire
    EXPECT_EQ(room[73], 0xa4);
    EXPECT_EQ(room[75], 52);
}

TEST(kelm_h, rx_set_session_crosses_from_c_to_cpp)
{
    ASSERT_EQ(c_agent_rx_set_session(room, sizeof room), 104u + 2);
    const auto *msg = reinterpret_cast<const kelm_msg_rx_set_session *>(room);
    EXPECT_EQ(msg->type, KELM_RX_SESSION_MULTIHOP);
    EXPECT_EQ(msg->multiplier, 3);
    EXPECT_EQ(msg->latch_tx_packets[7], 9u);
    EXPECT_EQ(room[49], 0x02); // auth.flags
    EXPECT_EQ(room[97], 1);    // auth_key[1].key_valid
    ASSERT_EQ(msg->failure_packet_len, 2u);
    EXPECT_EQ(msg->failure_packet, room + 104);
    EXPECT_EQ(msg->failure_packet[1], 0xff);
}

} // namespace
