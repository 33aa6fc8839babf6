// SPDX-License-Identifier: GPL-2.0
//
// Setting and deleting receive sessions: what is refused, in which order, and what a request that
// fails half way leaves behind.
#include "wire_fixture.h"

namespace
{

using namespace sim;

struct rx_session_config : engine_test {
    bool timed_out(std::uint64_t ticks)
    {
        w.advance(ticks);
        return !listener.read_messages().empty();
    }

    // Whether the session times out after so many ticks and not before.
    bool times_out_after(std::uint64_t ticks) { return !timed_out(ticks - 1) && timed_out(1); }

    // A set request with exactly this multiplier, period and failure message.
    int set_exactly(std::uint8_t multiplier, kelm_microsecs period, const bytes &message)
    {
        kelm_msg_rx_set_session fixed = rx{.multiplier = multiplier, .period = period};
        fixed.header.discriminator = SESSION;
        fixed.failure_packet_len = static_cast<std::uint32_t>(message.size());
        bytes body;
        append(body, as_bytes(fixed));
        append(body, message);
        return ask(a, KELM_MSG_RX_SET_SESSION, body);
    }

    agent &listener = w.open_agent(w.initial(), {.groups = NOTIFICATION});
};

TEST_F(rx_session_config, refusals_come_in_order_and_change_nothing)
{
    ASSERT_EQ(set_debug_level(a, 2), 0);
    const std::size_t memory = w.memory_in_use();
    EXPECT_EQ(set_session(a, 0, rx{.type = 5}), -EINVAL);
    EXPECT_EQ(w.logged("kelm Rx (0): Processing RX_SET_SESSION for session 0"), 1U);
    for (const std::uint8_t type : bytes{5, 6, 255})
        EXPECT_EQ(set_session(a, SESSION, rx{.latch = {99}, .type = type}), -EAFNOSUPPORT);
    EXPECT_EQ(w.logged("Returning"), 0U);
    EXPECT_EQ(delete_session(a, 0), -EINVAL);
    EXPECT_EQ(delete_session(a, SESSION), -ENOENT);
    EXPECT_TRUE(sync_dump(a).messages.empty());
    EXPECT_EQ(w.memory_in_use(), memory);
}

TEST_F(rx_session_config, sessions_are_found_by_discriminator_alone)
{
    net &other = w.create_namespace("other");
    agent &there = w.open_agent(other);
    for (const std::uint32_t disc : {5U, 37U, 69U, 0xffffffe5U}) // one chain
        ASSERT_EQ(set_session(a, disc, rx{.type = static_cast<std::uint8_t>(disc % 5)}), 0);
    EXPECT_EQ(delete_session(there, 37), -ENOENT);
    EXPECT_EQ(delete_session(a, 37), 0);
    EXPECT_EQ(delete_session(a, 37), -ENOENT);
    EXPECT_EQ(bodies<kelm_msg_rx_sync>(sync_dump(a).messages, KELM_MSG_RX_SYNC).size(), 3U);
    for (const int port : {3784, 3785, 6784, 4784, 47657}) {
        datagram packet = arriving({.your_discriminator = 69});
        packet.port = static_cast<std::uint16_t>(port);
        ASSERT_TRUE(w.deliver(w.initial(), packet));
    }
    EXPECT_EQ(rx_stats(a, 69)->num_received, 5U);
    EXPECT_EQ(rx_stats(a, 5)->num_received, 0U);
}

TEST_F(rx_session_config, the_timer_follows_the_flag)
{
    ASSERT_EQ(set_session(a, SESSION, rx{.flags = 0}), 0);
    EXPECT_EQ(w.timers(), 0U);
    ASSERT_EQ(set_session(a, SESSION, rx{}), 0);
    w.advance(DETECTION - 1);
    ASSERT_EQ(set_session(a, SESSION, rx{}), 0); // counts from now
    EXPECT_FALSE(timed_out(DETECTION - 1));
    ASSERT_EQ(set_session(a, SESSION, rx{.flags = KELM_RX_MYDISC_RTT | 0xfc}), 0);
    EXPECT_EQ(w.timers(), 0U);
    ASSERT_EQ(set_session(a, SESSION, rx{.flags = 0xff}), 0);
    EXPECT_TRUE(times_out_after(DETECTION));
}

TEST_F(rx_session_config, the_failure_message_is_the_latest_unchanged)
{
    bytes odd = make_message(KELM_MSG_SESSION_FAILURE, 0x1234, 77, bytes(13, 0xee));
    std::memset(&odd[12], 0x5a, 4);
    for (const bytes &message : {make_message(99, 0, 0, {}), odd,
                                 make_message(KELM_MSG_TX_STATS, 0, 0, bytes(60000, 7))}) {
        ASSERT_EQ(set_exactly(1, 1, bytes(16)), 0);
        for (int silence = 0; silence < 2; ++silence) {
            ASSERT_EQ(set_exactly(1, 1, message), 0);
            w.advance(1);
            EXPECT_EQ(listener.read(), message);
            EXPECT_EQ(listener.read(), std::nullopt);
        }
    }
    ASSERT_EQ(set_exactly(1, 1, {}), 0); // an empty one goes nowhere
    w.advance(1);
    EXPECT_EQ(rx_stats(a, SESSION)->num_timeout, 7U);
}

TEST_F(rx_session_config, without_memory_a_session_is_not_created_and_an_old_one_not_touched)
{
    // Two allocations make the request's buffer, one the record, two the failure message.
    for (std::uint64_t n = 3; n <= 5; ++n) {
        w.fail(service::allocation, -ENOMEM, n);
        EXPECT_EQ(set_session(a, SESSION, rx{}), -ENOMEM) << n;
        EXPECT_EQ(rx_stats(a, SESSION), std::nullopt);
    }
    EXPECT_EQ(w.logged("kelm Rx: Failed to allocate failed packet"), 2U);
    ASSERT_EQ(set_session(a, SESSION, rx{}), 0);
    w.advance(100);
    w.fail(service::allocation, -ENOMEM, 3);
    EXPECT_EQ(set_session(a, SESSION, rx{.flags = 0, .period = 5000, .latch = {99}}), -ENOMEM);
    EXPECT_TRUE(times_out_after(DETECTION - 100));
}

TEST_F(rx_session_config, an_unknown_packet_ends_the_request_half_way)
{
    ASSERT_EQ(set_debug_level(a, 2), 0);
    ASSERT_EQ(path_ready(a), 0);
    for (const std::uint32_t disc : {1U, 2U, 3U, 4U})
        ASSERT_EQ(set_packet(a, disc), 0);
    // A new session: there, but its timer is not started.
    w.clear_log();
    EXPECT_EQ(set_session(a, SESSION, rx{.latch = {1, 2, 99, 3}}), -ENXIO);
    EXPECT_EQ(w.logged("kelm Rx (5): Returning -6"), 1U);
    EXPECT_EQ(w.timers(), 4U);
    EXPECT_EQ(rx_stats(a, SESSION)->last_state_change.sec, 0U);
    // An existing one: the timer runs on as it was, with the new links, diagnostic and message.
    ASSERT_EQ(set_session(a, SESSION, rx{.latch = {4, 4, 4, 4, 4, 4, 4, 4}}), 0);
    w.advance(100);
    EXPECT_EQ(set_session(a, SESSION,
                          rx{.period = 1'000'000,
                             .latch = {3, 2, 99, 1},
                             .latch_diagnostic = BFD_DIAG_PATH_DOWN}),
              -ENXIO);
    EXPECT_TRUE(times_out_after(DETECTION - 100));
    // In slot order, up to the first empty one.
    std::vector<std::string> latched;
    for (const log_line &line : w.log()) {
        if (line.text.find("Latching") != std::string::npos)
            latched.push_back(line.text);
    }
    EXPECT_EQ(latched, (std::vector<std::string>{"kelm Tx (3): Latching packet 3 with diag 5",
                                                 "kelm Tx (2): Latching packet 2 with diag 5"}));
    // The new period holds from the next packet on, if the timer is active.
    EXPECT_EQ(set_session(a, SESSION, rx{.period = 1'000'000, .latch = {99}}), -ENXIO);
    ASSERT_TRUE(receive(w, SESSION));
    EXPECT_TRUE(times_out_after(3000));
    // Without the flag, too: the agent has been told that its request was refused.
    ASSERT_EQ(set_session(a, SESSION, rx{}), 0);
    EXPECT_EQ(set_session(a, SESSION, rx{.flags = 0, .latch = {99}}), -ENXIO);
    EXPECT_TRUE(times_out_after(DETECTION));
    EXPECT_EQ(rx_stats(a, SESSION)->num_timeout, 3U);
}

TEST_F(rx_session_config, up_to_8_packets_are_linked_and_the_first_0_ends_the_list)
{
    ASSERT_EQ(path_ready(a), 0);
    for (std::uint32_t disc = 1; disc <= 9; ++disc)
        ASSERT_EQ(set_packet(a, disc), 0);
    const std::pair<std::vector<std::uint32_t>, std::string> cases[] = {
        {{1, 2, 3, 4, 5, 6, 7, 8}, "111111110"},
        {{1, 0, 3}, "211111110"},
        {{0, 2}, "211111110"},
    };
    for (const auto &[linked, latches] : cases) {
        ASSERT_EQ(set_session(a, 100, rx{.latch = linked}), 0);
        w.advance(DETECTION + INTERVAL);
        std::string met;
        for (std::uint32_t disc = 1; disc <= 9; ++disc)
            met += std::to_string(tx_stats(a, disc)->num_latches);
        EXPECT_EQ(met, latches);
    }
}

TEST_F(rx_session_config, packets_of_other_vrfs_are_linked_the_own_one_first_then_the_newest)
{
    ASSERT_EQ(path_ready(a), 0);
    agent &red = w.open_agent(w.create_namespace("red"));
    agent &blue = w.open_agent(w.create_namespace("blue"));
    const auto latches_after = [&](agent &owner) {
        EXPECT_EQ(set_packet(owner, 1), 0);
        EXPECT_EQ(set_session(a, SESSION, rx{.latch = {1}}), 0);
        w.advance(DETECTION + INTERVAL);
        return tx_stats(owner, 1)->num_latches;
    };
    EXPECT_EQ(latches_after(red), 1U);
    EXPECT_EQ(latches_after(blue), 1U);
    EXPECT_EQ(latches_after(a), 1U);
    EXPECT_EQ(tx_stats(red, 1)->num_latches + tx_stats(blue, 1)->num_latches, 2U);
}

TEST_F(rx_session_config, zero_detection_time_is_accepted_and_over_at_once)
{
    const bytes message = make_message(KELM_MSG_SESSION_FAILURE, 0, 0, {});
    const std::pair<std::uint8_t, kelm_microsecs> zeros[] = {
        {0, 300'000}, {3, 0}, {128, 0x02000000}}; // modulo 2^32
    for (const auto &[multiplier, period] : zeros) {
        EXPECT_EQ(set_exactly(multiplier, period, message), 0);
        EXPECT_EQ(w.logged("kelm Rx: Session 5 has zero detect time " + std::to_string(multiplier) +
                           " * " + std::to_string(period)),
                  1U);
        EXPECT_TRUE(timed_out(1));
    }
    EXPECT_EQ(set_exactly(255, 0x01020305, message), 0); // 16,777,723 us too many for 32 bits
    EXPECT_EQ(w.logged("zero detect time"), 3U);
    EXPECT_TRUE(times_out_after((255ULL * 0x01020305 % (1ULL << 32) + 999) / 1000));
}

} // namespace
