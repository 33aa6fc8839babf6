// SPDX-License-Identifier: GPL-2.0
//
// One transmission: what is edited into the packet, how it is handed to its socket, and what
// becomes of the packet afterwards.
#include "wire_fixture.h"

#include <sys/socket.h>

namespace
{

using namespace sim;

constexpr std::uint32_t SESSION = 5;
constexpr std::uint64_t INTERVAL = 299; // ticks, of a packet of 300 ms without jitter

class tx_transmit : public testing::Test
{
  protected:
    // The next frame that goes out.
    frame next_frame()
    {
        w.take_frames();
        w.advance(INTERVAL);
        EXPECT_FALSE(w.frames().empty());
        return w.frames().empty() ? frame{} : w.frames().front();
    }

    // A session that has timed out and latched the packet, which waits for its next transmission.
    void latch(std::uint8_t diagnostic, std::uint32_t session = SESSION)
    {
        ASSERT_EQ(set_session(a, session,
                              rx{.multiplier = 1,
                                 .period = 1,
                                 .latch = {SESSION},
                                 .latch_diagnostic = diagnostic}),
                  0);
        w.advance(1);
        ASSERT_EQ(rx_stats(a, session)->num_timeout, 1U);
    }

    world w;
    agent &a = w.open_agent(w.initial());
};

std::string hex(std::span<const std::uint8_t> data)
{
    std::string text;
    for (const std::uint8_t byte : data) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

struct authenticated {
    std::uint8_t type;
    std::string first; // sequence number and digest, made with another implementation
    std::string second;
};

TEST_F(tx_transmit, sections_get_sequence_number_and_digest)
{
    const authenticated cases[] = {
        {BFD_AUTH_KEYED_MD5,
         "00000062"
         "3ff382280a3991a783662a5a460151ba",
         ""},
        {BFD_AUTH_METICULOUS_MD5,
         "00000000"
         "67e3d010586ebdeb31a6588e9666d43d",
         "00000001"
         "2cf4ffeba764236f6588c31f1995eb82"},
        {BFD_AUTH_KEYED_SHA1,
         "00000062"
         "e39dc9f2053ced230ae74f3645725c9c25a60430",
         ""},
        {BFD_AUTH_METICULOUS_SHA1,
         "00000000"
         "94b458356cb6f7923ae625c0c0491576196ab2ab",
         "00000001"
         "a6a86154fe35b2039fb72ff3e1854e4a5922af82"},
        {BFD_AUTH_DEBUG_SEQNUM, "00000000", "00000001"},
        {BFD_AUTH_PASSWORD, "", ""},
    };
    for (const authenticated &each : cases) {
        outgoing packet;
        packet.payload = with_section({.my_discriminator = SESSION, .your_discriminator = 77},
                                      auth_section(each.type));
        ASSERT_EQ(set(a, each.type, packet), 0);
    }
    ASSERT_EQ(w.raw_ns() / 1'000'000'000, 0x62); // the keyed types' sequence number
    ASSERT_EQ(path_ready(a), 0);
    const std::vector<frame> first = w.take_frames();
    ASSERT_EQ(first.size(), std::size(cases));
    for (const authenticated &each : cases) {
        SCOPED_TRACE(int{each.type});
        const auto sent = [&each](const std::vector<frame> &frames) {
            return std::ranges::find_if(frames, [&each](const frame &f) {
                return bfd_in(f.data)[BFD_CTRL_LEN] == each.type;
            });
        };
        const bytes &data = sent(first)->data;
        const std::span<const std::uint8_t> section = bfd_in(data).subspan(BFD_CTRL_LEN);
        EXPECT_TRUE(udp_checksum_right(data));
        if (each.type == BFD_AUTH_PASSWORD) {
            EXPECT_EQ(hex(section), "010909"
                                    "303132333435");
            continue;
        }
        EXPECT_EQ(hex(section.subspan(4)), each.first);

        // Replacing the packet does not start the sequence anew.
        outgoing packet;
        packet.payload = with_section({.my_discriminator = SESSION, .your_discriminator = 77},
                                      auth_section(each.type));
        ASSERT_EQ(set(a, each.type, packet, tx{.flags = KELM_TX_SEND_OOB}), 0);
        w.take_frames();
        w.advance(1);
        const auto again = sent(w.frames());
        ASSERT_NE(again, w.frames().end());
        if (!each.second.empty()) {
            EXPECT_EQ(hex(bfd_in(again->data).subspan(BFD_CTRL_LEN + 4)), each.second);
        }
        EXPECT_TRUE(udp_checksum_right(again->data));
    }
}

TEST_F(tx_transmit, checksum_is_made_for_every_packet)
{
    std::uint32_t disc = 0;
    for (const std::size_t link_len : {0U, 14U, 18U}) {
        for (const char *host : {"10.0.0.9", "fe80::1:9"}) {
            for (const std::uint8_t auth :
                 bytes{BFD_AUTH_NONE, BFD_AUTH_PASSWORD, BFD_AUTH_METICULOUS_SHA1}) {
                outgoing packet;
                packet.link_len = link_len;
                packet.source = packet.destination = address(host);
                packet.payload = with_section({}, auth_section(auth)); // odd with the password
                bytes body = set_request(++disc, packet);
                // What the agent put there is of no interest.
                const std::size_t bfd = body.size() - packet.payload.size();
                body[bfd - 2] = 0xde;
                body[bfd - 1] = 0xad;
                ASSERT_EQ(ask(a, KELM_MSG_TX_SET_PACKET, body), 0);
                disc += link_len == 0 ? 0 : 1000; // to know them again
            }
        }
    }
    ASSERT_EQ(path_ready(a), 0);
    EXPECT_EQ(w.frames().size(), 18U);
    std::size_t link_frames = 0;
    for (const frame &each : w.frames()) {
        std::size_t ip = 0;
        if (each.kind == socket_kind::packet) {
            ++link_frames;
            ip = each.data[12] == 0 && each.data[13] == 0 ? 18 : 14; // the type is at the end
        }
        EXPECT_TRUE(udp_checksum_right(each.data, ip)) << hex(each.data);
    }
    EXPECT_EQ(link_frames, 12U);
}

TEST_F(tx_transmit, checksum_0_is_sent_as_ffff)
{
    outgoing packet;
    bytes encoded = packet.encode();
    // Putting the checksum into the packet, where there is 0, makes the sum come out as 0.
    std::copy_n(encoded.begin() + 26, 2, packet.payload.end() - 2);
    ASSERT_EQ(set(a, SESSION, packet), 0);
    ASSERT_EQ(path_ready(a), 0);
    const bytes &data = w.frames().at(0).data;
    EXPECT_EQ(hex(std::span(data).subspan(26, 2)), "ffff");
    EXPECT_TRUE(udp_checksum_right(data));
}

TEST_F(tx_transmit, only_out_of_band_packets_carry_a_final_bit)
{
    outgoing packet;
    packet.payload = control_packet{.flags = BFD_FLAG_FINAL | BFD_FLAG_DEMAND_MODE}.encode();
    ASSERT_EQ(set(a, SESSION, packet), 0);
    ASSERT_EQ(path_ready(a), 0);
    EXPECT_EQ(bfd_in(w.frames().at(0).data)[1], 0xc0 | BFD_FLAG_DEMAND_MODE);
    ASSERT_EQ(set(a, SESSION, packet, tx{.flags = KELM_TX_SEND_OOB}), 0);
    EXPECT_EQ(bfd_in(next_frame().data)[1], 0xc0 | BFD_FLAG_DEMAND_MODE | BFD_FLAG_FINAL);
    EXPECT_EQ(bfd_in(next_frame().data)[1], 0xc0 | BFD_FLAG_DEMAND_MODE);
}

TEST_F(tx_transmit, round_trip_stamp_is_the_raw_clock)
{
    ASSERT_EQ(set(a, SESSION, {}, tx{.flags = KELM_TX_MYDISC_RTT}), 0);
    w.move_clocks(123'456);
    ASSERT_EQ(path_ready(a), 0);
    const frame &sent = w.frames().at(0);
    EXPECT_EQ(ctrl_in(sent.data).my_discriminator, static_cast<std::uint32_t>(sent.raw_ns >> 4));
    EXPECT_TRUE(udp_checksum_right(sent.data));
}

TEST_F(tx_transmit, latch_rewrites_the_header_for_good)
{
    outgoing packet;
    packet.payload = with_section({.my_discriminator = SESSION,
                                   .your_discriminator = 77,
                                   .flags = BFD_FLAG_POLL | BFD_FLAG_DEMAND_MODE},
                                  auth_section(BFD_AUTH_METICULOUS_SHA1));
    ASSERT_EQ(path_ready(a), 0);
    ASSERT_EQ(set(a, SESSION, packet, tx{.latch_period = 1'000'000, .latch_state = 0xfd}), 0);
    const frame before = next_frame();
    EXPECT_EQ(before.flags, std::uint32_t{MSG_DONTWAIT | MSG_CONFIRM});
    latch(0xe3);                         // five bits count, and two of the state
    EXPECT_TRUE(w.frames().size() == 1); // nothing is sent at that moment
    const frame latched = next_frame();
    EXPECT_EQ(latched.tick - before.tick, INTERVAL);
    EXPECT_EQ(latched.flags, std::uint32_t{MSG_DONTWAIT}); // by the new period

    bytes expected(bfd_in(before.data).begin(), bfd_in(before.data).begin() + BFD_CTRL_LEN);
    expected[0] = 0x23;
    expected[1] = 0x40 | BFD_FLAG_POLL | BFD_FLAG_DEMAND_MODE | BFD_FLAG_AUTH_PRESENT;
    std::fill_n(expected.begin() + 8, 4, 0);
    expected[12] = 0x00;
    expected[13] = 0x0f;
    expected[14] = 0x42;
    expected[15] = 0x40;
    EXPECT_EQ(hex(bfd_in(latched.data).first(BFD_CTRL_LEN)), hex(expected));
    EXPECT_EQ(bfd_in(latched.data)[BFD_CTRL_LEN + 7], 1); // the next sequence number
    EXPECT_NE(hex(bfd_in(latched.data).subspan(32)), hex(bfd_in(before.data).subspan(32)));
    EXPECT_TRUE(udp_checksum_right(latched.data));
    EXPECT_EQ(tx_stats(a, SESSION)->num_latches, 1U);

    // It stays so, in the new period, until the agent replaces it.
    w.take_frames();
    w.advance(1998);
    ASSERT_EQ(w.frames().size(), 2U);
    EXPECT_EQ(w.frames()[0].tick - latched.tick, 999U);
    EXPECT_EQ(hex(bfd_in(w.frames()[1].data).first(BFD_CTRL_LEN)), hex(expected));
    ASSERT_EQ(set(a, SESSION, packet), 0);
    EXPECT_EQ(ctrl_in(next_frame().data).diag, 0);
    EXPECT_EQ(tx_stats(a, SESSION)->num_latches, 1U);
}

TEST_F(tx_transmit, the_latest_latch_wins_and_survives_a_replacement)
{
    ASSERT_EQ(path_ready(a), 0);
    ASSERT_EQ(set(a, SESSION, {}), 0);
    latch(BFD_DIAG_ECHO_FAIL, 1);
    latch(BFD_DIAG_NEIGH_DOWN, 2);
    ASSERT_EQ(set(a, SESSION, {}), 0);
    EXPECT_EQ(ctrl_in(next_frame().data).diag, BFD_DIAG_NEIGH_DOWN);
    EXPECT_EQ(tx_stats(a, SESSION)->num_latches, 1U);
    ASSERT_EQ(set(a, SESSION, {}), 0);
    latch(0, 3); // asks for nothing
    EXPECT_EQ(ctrl_in(next_frame().data).diag, 0);
    EXPECT_EQ(tx_stats(a, SESSION)->num_latches, 1U);
}

struct addressed {
    const char *source;
    const char *destination;
    std::uint32_t ifindex;
    const char *control;
    const char *name;
};

TEST_F(tx_transmit, address_and_packet_info)
{
    constexpr const char *NAME_V4 = "0a00"
                                    "0000"
                                    "00000000"
                                    "00000000000000000000ffff0a000002"
                                    "00000000";
    constexpr const char *NAME_V6 = "0a00"
                                    "0000"
                                    "00000000"
                                    "fe800000000000000000000000000002"
                                    "00000000";
    constexpr addressed cases[] = {
        {"0.0.0.0", "10.0.0.2", 0, "", NAME_V4},
        {"0.0.0.0", "10.0.0.2", 5,
         "1c00000000000000"
         "00000000"
         "08000000"
         "05000000"
         "00000000"
         "00000000",
         NAME_V4},
        {"10.0.0.1", "10.0.0.2", 0,
         "1c00000000000000"
         "00000000"
         "08000000"
         "00000000"
         "0a000001"
         "00000000",
         NAME_V4},
        {"10.0.0.1", "10.0.0.2", 0x01020304,
         "1c00000000000000"
         "00000000"
         "08000000"
         "04030201"
         "0a000001"
         "00000000",
         NAME_V4},
        {"::", "fe80::2", 0, "", NAME_V6},
        {"::", "fe80::2", 5,
         "2400000000000000"
         "29000000"
         "32000000"
         "00000000000000000000000000000000"
         "05000000",
         NAME_V6},
        {"fe80::1", "fe80::2", 0,
         "2400000000000000"
         "29000000"
         "32000000"
         "fe800000000000000000000000000001"
         "00000000",
         NAME_V6},
    };
    ASSERT_EQ(path_ready(a), 0);
    for (const addressed &each : cases) {
        SCOPED_TRACE(testing::Message() << each.source << " on " << each.ifindex);
        outgoing packet;
        packet.source = address(each.source);
        packet.destination = address(each.destination);
        const tx fixed{.flags = KELM_TX_SEND_OOB, .ifindex = each.ifindex};
        ASSERT_EQ(set(a, SESSION, packet, fixed), 0);
        const frame sent = next_frame();
        EXPECT_EQ(sent.kind, socket_kind::raw);
        EXPECT_EQ(hex(sent.name), each.name);
        EXPECT_EQ(hex(sent.control), each.control);
        EXPECT_EQ(sent.data, packet.encode());

        packet.link_len = 14;
        ASSERT_EQ(set(a, SESSION, packet, fixed), 0);
        const frame link = next_frame();
        EXPECT_EQ(link.kind, socket_kind::packet);
        EXPECT_EQ(link.flags, std::uint32_t{MSG_DONTWAIT});
        EXPECT_EQ(hex(link.name), "1100"
                                  "0000" +
                                      hex(as_bytes(each.ifindex)) +
                                      "0000"
                                      "00"
                                      "06"
                                      "2021222324250000");
        EXPECT_EQ(hex(link.control), "");
        EXPECT_EQ(link.data, packet.encode());
    }
}

TEST_F(tx_transmit, frequent_traffic_confirms_the_neighbour)
{
    ASSERT_EQ(path_ready(a), 0);
    for (const kelm_microsecs period : {1U, 999'999U, 1'000'000U, 0xffffffffU}) {
        ASSERT_EQ(set(a, SESSION, {}, tx{.period = period, .flags = KELM_TX_SEND_OOB}), 0);
        EXPECT_EQ(next_frame().flags,
                  std::uint32_t{MSG_DONTWAIT} | (period < 1'000'000 ? MSG_CONFIRM : 0))
            << period;
    }
}

TEST_F(tx_transmit, failed_and_short_sends_are_counted_and_sending_goes_on)
{
    ASSERT_EQ(set_debug_level(a, 2), 0);
    ASSERT_EQ(path_ready(a), 0);
    ASSERT_EQ(set(a, SESSION, {}), 0);
    w.advance(INTERVAL);
    w.fail(service::send, -ENOBUFS);
    w.advance(INTERVAL);
    EXPECT_EQ(w.logged("kelm Tx (5): Error Txing: -105"), 1U);
    w.fail(service::send, 51); // of 52 bytes
    w.advance(INTERVAL);
    EXPECT_EQ(w.logged("kelm Tx (5): Error Txing: 51"), 1U);
    const auto stats = *tx_stats(a, SESSION);
    EXPECT_EQ(stats.num_tx_errors, 2U);
    EXPECT_EQ(stats.num_sent, 3U);
    EXPECT_EQ(stats.max_lateness, INTERVAL * 1000);
    next_frame();
    EXPECT_EQ(tx_stats(a, SESSION)->num_tx_errors, 2U);
}

TEST_F(tx_transmit, wall_clock_set_back_gives_lateness_0)
{
    ASSERT_EQ(path_ready(a), 0);
    ASSERT_EQ(set(a, SESSION, {}), 0);
    w.advance(INTERVAL);
    w.step_wall_clock(-10'000'000'000);
    w.advance(INTERVAL);
    const auto stats = *tx_stats(a, SESSION);
    EXPECT_EQ(stats.num_sent, 2U);
    EXPECT_EQ(stats.min_lateness, 0U);
    EXPECT_EQ(stats.max_lateness, 0U);
    EXPECT_EQ(stats.sent_within_1p, 1U);
}

TEST_F(tx_transmit, deleted_packet_is_silent_and_freed_by_its_timer)
{
    ASSERT_EQ(set_debug_level(a, 3), 0);
    ASSERT_EQ(path_ready(a), 0);
    const std::size_t memory = w.memory_in_use();
    ASSERT_EQ(set(a, SESSION, {}), 0);
    ASSERT_EQ(delete_packet(a, SESSION), 0);
    EXPECT_GT(w.memory_in_use(), memory);
    ASSERT_EQ(set(a, SESSION, {}), 0); // another one of the same discriminator
    w.advance(INTERVAL);
    EXPECT_EQ(w.frames().size(), 1U);
    EXPECT_EQ(w.logged("kelm Tx (5): Reached dead tx 5"), 1U);
    EXPECT_EQ(w.logged("kelm Tx (5): Free tx_packet"), 1U);
    ASSERT_EQ(delete_packet(a, SESSION), 0);
    w.advance(INTERVAL);
    EXPECT_EQ(w.memory_in_use(), memory);
}

TEST_F(tx_transmit, deleted_packet_lives_on_in_the_sessions_that_link_it)
{
    ASSERT_EQ(path_ready(a), 0);
    const std::size_t memory = w.memory_in_use();
    ASSERT_EQ(set(a, SESSION, {}), 0);
    ASSERT_EQ(set_session(a, 1, rx{.latch = {SESSION, SESSION}}), 0);
    ASSERT_EQ(set_session(a, 2, rx{.latch = {SESSION}}), 0);
    ASSERT_EQ(delete_packet(a, SESSION), 0);
    ASSERT_EQ(set(a, SESSION, {}, tx{.period = 100'000}), 0);
    w.advance(1000); // the sessions time out, and latch a dead packet
    for (const frame &each : w.frames())
        EXPECT_EQ(ctrl_in(each.data).diag, 0);
    EXPECT_EQ(w.frames().size(), 10U);
    // Linking again finds the new one.
    ASSERT_EQ(set_session(a, 2, rx{.flags = 0, .latch = {SESSION}}), 0);
    ASSERT_EQ(delete_packet(a, SESSION), 0);
    w.advance(1000);
    EXPECT_EQ(w.timers(), 0U);
    EXPECT_GT(w.memory_in_use(), memory);
    ASSERT_EQ(delete_session(a, 1), 0);
    ASSERT_EQ(delete_session(a, 2), 0);
    EXPECT_EQ(w.memory_in_use(), memory);
}

} // namespace
