// SPDX-License-Identifier: GPL-2.0
//
// kelm.h means the same in C11 and in C++20. That its layouts are right is asserted by itself.
#include "test_kelm_h.h"

#include <gtest/gtest.h>

#include "kelm.h"

namespace
{

TEST(kelm_h, structures_cross_from_c_to_cpp)
{
    alignas(8) std::uint8_t tx_room[80] = {}, rx_room[112] = {}, ctrl_room[24] = {};
    auto *tx = reinterpret_cast<kelm_msg_tx_set_packet *>(tx_room);
    auto *rx = reinterpret_cast<kelm_msg_rx_set_session *>(rx_room);
    c_agent_fills(tx, rx, reinterpret_cast<bfd_ctrl *>(ctrl_room));

    EXPECT_EQ(tx->type, KELM_TX_SESSION_L2);
    EXPECT_EQ(tx->jitter_type, BFD_TX_JITTER_75_90);
    EXPECT_EQ(tx->flags, KELM_TX_SEND_OOB | KELM_TX_MYDISC_RTT);
    EXPECT_EQ(tx->auth_hdr.sha1.key_digest[19], 0xee);
    EXPECT_EQ(tx_room[67], 0xee);
    EXPECT_EQ(tx->packet, tx_room + 72);
    EXPECT_EQ(tx_room[72], 0xff);

    EXPECT_EQ(rx->type, KELM_RX_SESSION_MULTIHOP);
    EXPECT_EQ(rx->latch_tx_packets[7], 9u);
    EXPECT_EQ(rx_room[49], 0x02); // auth.flags
    EXPECT_EQ(rx_room[97], 1);    // auth_key[1].key_valid
    EXPECT_EQ(rx->failure_packet, rx_room + 104);
    EXPECT_EQ(rx_room[104], 0xff);

    EXPECT_EQ(ctrl_room[0], 0x23); // on the wire
    EXPECT_EQ(ctrl_room[1], 0xa4);
}

} // namespace
