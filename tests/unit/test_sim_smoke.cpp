// SPDX-License-Identifier: GPL-2.0
//
// The main job, once through: a session is set up, sends, receives, times out, and latches.
#include "sim_fixture.h"

#include <algorithm>

namespace
{

using namespace sim;

constexpr std::uint32_t SESSION = 5;
constexpr std::uint64_t PERIOD = 300; // ticks, of transmission and reception
constexpr std::uint64_t DETECTION_TIME = 3 * PERIOD;
constexpr std::uint32_t CONTROL_GROUP = 1U << (KELM_NLG_NUM_CONTROL - 1);
constexpr std::uint32_t NOTIFICATION_GROUP = 1U << (KELM_NLG_NUM_NOTIFICATION - 1);

TEST(smoke, a_session_sends_receives_fails_and_latches)
{
    world w;
    agent &a = w.open_agent(w.initial(), {.groups = CONTROL_GROUP | NOTIFICATION_GROUP});

    kelm_msg_tx_set_packet packet{};
    packet.latch_state = BFD_STATE_DOWN;
    packet.latch_period = 1'000'000;
    packet.ifindex = 7;
    control_packet ours;
    ours.my_discriminator = SESSION;
    ours.your_discriminator = 77;
    const bytes on_the_wire = ipv4_datagram(ours.encode());
    ASSERT_EQ(a.request(KELM_MSG_TX_SET_PACKET, tx_set_packet(SESSION, on_the_wire, packet)), 0);

    kelm_msg_rx_set_session session{};
    session.flags = KELM_RX_TIMER_ACTIVE;
    session.latch_diagnostic = BFD_DIAG_CTRL_TIMEOUT;
    session.latch_tx_packets[0] = SESSION;
    ASSERT_EQ(a.request(KELM_MSG_RX_SET_SESSION, rx_set_session(SESSION, session)), 0);

    // Nothing goes out before the path is ready. Then at once, after a random delay, and with
    // the period: half a tick of jitter, rounded up, is taken off.
    w.advance(10);
    EXPECT_TRUE(w.frames().empty());
    const std::uint64_t ready_at = w.tick();
    w.next_random(1);       // jitter, which the random delay replaces
    w.next_random(100'000); // that delay, microseconds
    const kelm_msg_tx_path_ready path_ready{};
    ASSERT_EQ(a.request(KELM_MSG_TX_PATH_READY, as_bytes(path_ready)), 0);
    w.advance(700);
    std::vector<frame> frames = w.take_frames();
    ASSERT_EQ(frames.size(), 4U);
    EXPECT_EQ(frames[0].tick, ready_at);
    EXPECT_EQ(frames[1].tick, ready_at + 100);
    EXPECT_EQ(frames[2].tick, ready_at + 100 + PERIOD - 1);
    EXPECT_EQ(frames[3].tick, ready_at + 100 + 2 * (PERIOD - 1));
    for (const frame &each : frames) {
        EXPECT_EQ(each.kind, socket_kind::raw);
        EXPECT_EQ(each.data, on_the_wire);
        EXPECT_EQ(to_string(each.destination), "10.0.0.2");
        EXPECT_EQ(to_string(each.source), "10.0.0.1");
        EXPECT_EQ(each.ifindex, 7);
    }

    // The first packet is passed up; each packet restarts the detection.
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(w.deliver(w.initial(), arriving({})));
        w.advance(DETECTION_TIME - 1);
    }
    std::vector<message> received = a.read_messages();
    ASSERT_EQ(received.size(), 1U);
    EXPECT_EQ(received[0].header.nlmsg_type, KELM_MSG_RX_PACKET_CHANGE);
    EXPECT_EQ(received[0].header.nlmsg_len, 106U);
    const auto change = read_as<kelm_msg_rx_packet_change>(received[0].body);
    EXPECT_EQ(change.header.discriminator, SESSION);
    EXPECT_EQ(change.packet_len, 66U);
    EXPECT_EQ(change.bfd_offset, 42U);

    // Silence for the whole detection time: the failure message, and the latch on the wire.
    w.take_frames();
    w.advance(1);
    received = a.read_messages();
    ASSERT_EQ(received.size(), 1U);
    EXPECT_EQ(received[0].header.nlmsg_type, KELM_MSG_SESSION_FAILURE);
    EXPECT_EQ(read_as<kelm_msg_header>(received[0].body).discriminator, SESSION);

    w.advance(PERIOD + 2500);
    frames = w.take_frames();
    ASSERT_GE(frames.size(), 3U);
    const std::size_t bfd = on_the_wire.size() - BFD_CTRL_LEN;
    const auto latched = read_as<bfd_ctrl>(std::span(frames[1].data).subspan(bfd));
    EXPECT_EQ(latched.diag, BFD_DIAG_CTRL_TIMEOUT);
    EXPECT_EQ(latched.state, BFD_STATE_DOWN);
    EXPECT_EQ(latched.your_discriminator, 0U);
    EXPECT_EQ(ntohl(latched.min_tx_interval), 1'000'000U);
    EXPECT_EQ(frames[2].tick - frames[1].tick, 999U);
    EXPECT_FALSE(a.read().has_value());
}

} // namespace
