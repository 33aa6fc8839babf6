// SPDX-License-Identifier: GPL-2.0
//
// One transmission: what is edited into the packet, and how it is handed to its socket. Sequence
// numbers and what becomes of deleted packets are tested in whole worlds and interleavings.
#include <sys/socket.h>

#include "engine_fixture.h"

namespace
{

using namespace sim;

struct tx_transmit : engine_test {
    tx_transmit() { EXPECT_EQ(path_ready(a), 0); }

    // A session that has timed out and latched the packet, which waits for its next transmission.
    void latch(std::uint8_t diagnostic, std::uint32_t session = own_disc)
    {
        const rx instantly{
            .multiplier = 1, .period = 1, .latch = {own_disc}, .latch_diagnostic = diagnostic};
        ASSERT_EQ(set_session(a, session, instantly), 0);
        w.advance(1);
        ASSERT_EQ(rx_stats(a, session)->num_timeout, 1U);
    }
};

TEST_F(tx_transmit, checksum_0_is_sent_as_ffff)
{
    outgoing packet;
    const bytes encoded = packet.encode();
    // Putting the checksum into the packet, where there is 0, makes the sum come out as 0.
    std::copy_n(encoded.begin() + 26, 2, packet.payload.end() - 2);
    ASSERT_EQ(set(a, own_disc, packet), 0);
    const bytes data = next_frame().data;
    EXPECT_EQ(hex(std::span(data).subspan(26, 2)), "ffff");
}

TEST_F(tx_transmit, only_out_of_band_packets_carry_a_final_bit)
{
    outgoing packet;
    packet.payload = control_packet{.flags = BFD_FLAG_FINAL | BFD_FLAG_DEMAND_MODE}.encode();
    ASSERT_EQ(set(a, own_disc, packet), 0);
    EXPECT_EQ(bfd_in(next_frame().data)[1], 0xc0 | BFD_FLAG_DEMAND_MODE);
    ASSERT_EQ(set(a, own_disc, packet, tx{.flags = KELM_TX_SEND_OOB}), 0);
    EXPECT_EQ(bfd_in(next_frame().data)[1], 0xc0 | BFD_FLAG_DEMAND_MODE | BFD_FLAG_FINAL);
    EXPECT_EQ(bfd_in(next_frame().data)[1], 0xc0 | BFD_FLAG_DEMAND_MODE);
}

TEST_F(tx_transmit, round_trip_stamp_is_the_raw_clock)
{
    ASSERT_EQ(set(a, own_disc, {}, tx{.flags = KELM_TX_MYDISC_RTT}), 0);
    w.move_clocks(123'456);
    EXPECT_EQ(sent_during(interval_ticks), std::vector<std::uint64_t>{interval_ticks});
    const frame &sent = w.frames().at(0);
    EXPECT_EQ(ctrl_in(sent.data).my_discriminator, static_cast<std::uint32_t>(sent.raw_ns >> 4));
    EXPECT_TRUE(udp_checksum_right(sent.data));
    ASSERT_EQ(set(a, own_disc, {}), 0); // without the flag
    EXPECT_EQ(ctrl_in(next_frame().data).my_discriminator, htonl(5));
}

TEST_F(tx_transmit, latch_rewrites_the_header_for_good)
{
    outgoing packet = authenticated(BFD_AUTH_METICULOUS_SHA1);
    packet.payload[1] |= BFD_FLAG_POLL | BFD_FLAG_DEMAND_MODE;
    ASSERT_EQ(set(a, own_disc, packet, tx{.latch_period = 1'000'000, .latch_state = 0xfd}), 0);
    const frame before = next_frame();
    EXPECT_EQ(hex(bfd_in(before.data).first(BFD_CTRL_LEN)),
              "20e60334000000050000004d000493e0000493e000000000");
    EXPECT_EQ(before.flags, std::uint32_t{MSG_DONTWAIT | MSG_CONFIRM});
    latch(0xe3);                      // five bits count, and two of the state
    EXPECT_EQ(w.frames().size(), 1U); // nothing is sent at that moment
    const frame latched = next_frame();
    EXPECT_EQ(latched.tick - before.tick, interval_ticks);
    EXPECT_EQ(latched.flags, std::uint32_t{MSG_DONTWAIT}); // by the new period
    const std::string rewritten = "236603340000000500000000000f4240000493e000000000";
    EXPECT_EQ(hex(bfd_in(latched.data).first(BFD_CTRL_LEN)), rewritten);
    EXPECT_EQ(bfd_in(latched.data)[BFD_CTRL_LEN + 7], 1); // the next sequence number
    EXPECT_NE(hex(bfd_in(latched.data).subspan(32)), hex(bfd_in(before.data).subspan(32)));
    EXPECT_TRUE(udp_checksum_right(latched.data));

    // It stays so, in the new period, until the agent replaces it: the last one was a tick ago.
    EXPECT_EQ(sent_during(1998), (std::vector<std::uint64_t>{998, 1997}));
    EXPECT_EQ(hex(bfd_in(w.frames()[1].data).first(BFD_CTRL_LEN)), rewritten);
    ASSERT_EQ(set(a, own_disc, packet), 0);
    EXPECT_EQ(ctrl_in(next_frame().data).diag, 0);
    EXPECT_EQ(tx_stats(a, own_disc)->num_latches, 1U);
}

TEST_F(tx_transmit, the_latest_latch_wins_and_survives_a_replacement)
{
    ASSERT_EQ(set(a, own_disc, {}), 0);
    latch(BFD_DIAG_ECHO_FAIL, 1);
    latch(BFD_DIAG_NEIGH_DOWN, 2);
    ASSERT_EQ(set(a, own_disc, {}), 0);
    EXPECT_EQ(ctrl_in(next_frame().data).diag, BFD_DIAG_NEIGH_DOWN);
    ASSERT_EQ(set(a, own_disc, {}), 0);
    latch(0, 3); // asks for nothing
    EXPECT_EQ(ctrl_in(next_frame().data).diag, 0);
    EXPECT_EQ(tx_stats(a, own_disc)->num_latches, 1U);
}

// Control data: length, level and type of the header, then its contents.
template<typename Info>
std::string control_of(int level, int type, const Info &info)
{
    bytes control = to_bytes(cmsghdr{CMSG_LEN(sizeof info), level, type});
    append(control, as_bytes(info));
    return hex(control);
}

TEST_F(tx_transmit, is_made_complete_and_handed_to_its_socket)
{
    const auto in4 = [](int ifindex, const char *source) {
        return control_of(IPPROTO_IP, IP_PKTINFO, in_pktinfo{ifindex, {inet_addr(source)}, {}});
    };
    const auto in6 = [](unsigned ifindex, const char *source) {
        return control_of(IPPROTO_IPV6, IPV6_PKTINFO, in6_pktinfo{address(source), ifindex});
    };
    const struct {
        const char *source;
        std::uint32_t ifindex;
        std::string control;
    } cases[] = {
        {"0.0.0.0", 0, ""},
        {"0.0.0.0", 5, in4(5, "0.0.0.0")},
        {"10.0.0.1", 0, in4(0, "10.0.0.1")},
        {"10.0.0.1", 0x01020304, in4(0x01020304, "10.0.0.1")},
        {"::", 0, ""},
        {"::", 5, in6(5, "::")},
        {"fe80::1", 0, in6(0, "fe80::1")},
    };
    for (const auto &[source, ifindex, control] : cases) {
        SCOPED_TRACE(testing::Message() << source << " on " << ifindex);
        outgoing packet = authenticated(BFD_AUTH_PASSWORD); // of odd length
        packet.source = address(source);
        packet.destination = address(std::strchr(source, ':') != nullptr ? "fe80::2" : "10.0.0.2");
        for (const std::size_t link_len : {0U, 14U}) {
            packet.link_len = link_len;
            const tx fixed{.flags = KELM_TX_SEND_OOB, .ifindex = ifindex};
            bytes body = set_request(own_disc, packet, fixed);
            body[body.size() - packet.payload.size() - 2] ^= 0x5a; // the checksum is kelm's
            ASSERT_EQ(ask(a, KELM_MSG_TX_SET_PACKET, body), 0);
            const frame sent = next_frame();
            EXPECT_EQ(sent.kind, link_len == 0 ? socket_kind::raw : socket_kind::packet);
            EXPECT_EQ(hex(sent.name),
                      link_len == 0
                          ? "0a00000000000000" + hex(as_bytes(packet.destination)) + "00000000"
                          : "11000000" + hex(as_bytes(ifindex)) + "000000062021222324250000");
            EXPECT_EQ(hex(sent.control), link_len == 0 ? control : "");
            EXPECT_EQ(sent.data, packet.encode());
            EXPECT_EQ(sent.flags, std::uint32_t{MSG_DONTWAIT} | (link_len == 0 ? MSG_CONFIRM : 0));
            EXPECT_EQ(sent.priority, 6U);
            EXPECT_EQ(sent.sndbuf, 16 * 1024 * 1024);
        }
    }
}

TEST_F(tx_transmit, failed_and_short_sends_are_counted_and_sending_goes_on)
{
    ASSERT_EQ(set_debug_level(a, 2), 0);
    ASSERT_EQ(set(a, own_disc, {}), 0);
    w.advance(interval_ticks);
    for (const int result : {-ENOBUFS, 51}) { // of 52 bytes
        w.fail(service::send, result);
        w.advance(interval_ticks);
        EXPECT_EQ(w.logged("kelm Tx (5): Error Txing: " + std::to_string(result)), 1U);
    }
    next_frame();
    const auto stats = *tx_stats(a, own_disc);
    EXPECT_EQ(stats.num_tx_errors, 2U);
    EXPECT_EQ(stats.num_sent, 4U);
    EXPECT_EQ(stats.max_lateness, interval_ticks * 1000);
}

// The agent arms the timer while the callback waits for the packet: one of the two references that
// a timer holds then is too many.
TEST_F(tx_transmit, extra_reference_is_dropped_each_time_and_logged_once)
{
    ASSERT_EQ(set_debug_level(a, 2), 0);
    agent &other = w.open_agent(w.initial());
    ASSERT_EQ(set(a, own_disc, {}), 0);
    for (int i = 0; i < 2; ++i) {
        w.pass(interval_ticks);
        w.at_lock_point(1, [&] { EXPECT_EQ(set(other, own_disc, {}), 0); });
        w.run_timers();
    }
    EXPECT_EQ(w.logged("kelm Tx (5): Releasing 5 on tx"), 2U);
    EXPECT_EQ(w.logged("kelm:  tx_trigger releasing extra reference to packet"), 1U);
}

} // namespace
