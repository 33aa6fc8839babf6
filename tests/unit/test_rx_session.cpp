// SPDX-License-Identifier: GPL-2.0
//
// Receive sessions and their detection timeout: exact to the tick, and once per silence. Late
// timers, clocks that step and what restarts the timer are tested in whole worlds.
#include "engine_fixture.h"

namespace
{

using namespace sim;

using rx_session = engine_test;

TEST_F(rx_session, what_is_refused_changes_nothing)
{
    ASSERT_EQ(set_debug_level(a, 2), 0);
    const std::size_t memory = w.memory_in_use();
    EXPECT_EQ(set_session(a, 0, rx{.type = 5}), -EINVAL);
    EXPECT_EQ(w.logged("kelm Rx (0): Processing RX_SET_SESSION for session 0"), 1U);
    for (const std::uint8_t type : bytes{5, 6, 255})
        EXPECT_EQ(set_session(a, own_disc, rx{.latch = {99}, .type = type}), -EAFNOSUPPORT);
    EXPECT_EQ(w.logged("Returning"), 0U);
    EXPECT_EQ(delete_session(a, 0), -EINVAL);
    EXPECT_EQ(delete_session(a, own_disc), -ENOENT);
    // Two allocations make the request's buffer, one the record, two the failure message.
    for (std::uint64_t n = 3; n <= 5; ++n) {
        w.fail(service::allocation, -ENOMEM, n);
        EXPECT_EQ(set_session(a, own_disc, rx{}), -ENOMEM) << n;
    }
    EXPECT_EQ(w.logged("kelm Rx: Failed to allocate failed packet"), 2U);
    EXPECT_TRUE(sync_dump(a).messages.empty());
    EXPECT_EQ(w.memory_in_use(), memory);

    for (const std::uint8_t type : bytes{1, 2, 3, 4, 0})
        ASSERT_EQ(set_session(a, own_disc, rx{.type = type}), 0);
    EXPECT_EQ(delete_session(w.open_agent(w.create_namespace("other")), own_disc), -ENOENT);
    w.advance(100);
    w.fail(service::allocation, -ENOMEM, 3);
    EXPECT_EQ(set_session(a, own_disc, rx{.flags = 0, .period = 5000, .latch = {99}}), -ENOMEM);
    EXPECT_TRUE(times_out_after(detection_ticks - 100));
}

TEST_F(rx_session, the_timer_follows_the_flag)
{
    ASSERT_EQ(set_session(a, own_disc, rx{.flags = 0}), 0);
    EXPECT_EQ(w.timers(), 0U);
    ASSERT_EQ(set_session(a, own_disc, rx{}), 0);
    w.advance(detection_ticks - 1);
    ASSERT_EQ(set_session(a, own_disc, rx{.flags = KELM_RX_MYDISC_RTT | 0xfc}), 0);
    EXPECT_EQ(w.timers(), 0U);
    ASSERT_EQ(set_session(a, own_disc, rx{.flags = 0xff}), 0);
    w.advance(detection_ticks - 1);
    ASSERT_EQ(set_session(a, own_disc, rx{}), 0); // counts from now
    EXPECT_TRUE(times_out_after(detection_ticks));
}

TEST_F(rx_session, the_failure_message_is_the_latest_unchanged)
{
    const rx instantly{.multiplier = 1, .period = 1};
    const auto told = [&](const bytes &message) {
        EXPECT_EQ(ask(a, KELM_MSG_RX_SET_SESSION, set_request(own_disc, instantly, message)), 0);
        w.advance(1);
        return listener.read();
    };
    bytes odd = make_message(KELM_MSG_SESSION_FAILURE, 0x1234, 77, bytes(13, 0xee));
    std::memset(&odd[12], 0x5a, 4);
    for (const bytes &message :
         {bytes(16), odd, make_message(KELM_MSG_TX_STATS, 0, 0, bytes(60000, 7))})
        EXPECT_EQ(told(message), message);
    told({});
    EXPECT_EQ(rx_stats(a, own_disc)->num_timeout, 4U);
}

TEST_F(rx_session, an_unknown_packet_ends_the_request_half_way)
{
    ASSERT_EQ(set_debug_level(a, 2), 0);
    for (const std::uint32_t disc : {1U, 2U, 3U, 4U})
        ASSERT_EQ(set_packet(a, disc), 0);
    // A new session: there, but its timer is not started.
    EXPECT_EQ(set_session(a, own_disc, rx{.latch = {1, 2, 99, 3}}), -ENXIO);
    EXPECT_EQ(w.logged("kelm Rx (5): Returning -6"), 1U);
    EXPECT_EQ(w.timers(), 0U);
    EXPECT_EQ(rx_stats(a, own_disc)->last_state_change.sec, 0U);
    // An existing one: the timer runs on as it was, with the new links, diagnostic and message.
    ASSERT_EQ(set_session(a, own_disc, rx{.latch = {4, 4, 4, 4, 4, 4, 4, 4}}), 0);
    w.advance(100);
    EXPECT_EQ(set_session(a, own_disc,
                          rx{.flags = 0,
                             .period = 1'000'000,
                             .latch = {3, 2, 99, 1},
                             .latch_diagnostic = BFD_DIAG_PATH_DOWN}),
              -ENXIO);
    EXPECT_TRUE(times_out_after(detection_ticks - 100));
    EXPECT_EQ(w.logged("Latching packet"), 2U);
    for (const char *disc : {"2", "3"})
        EXPECT_EQ(w.logged(std::string("Latching packet ") + disc + " with diag 5"), 1U);
    // The new period holds from the next packet on, if the timer is active.
    ASSERT_EQ(set_session(a, own_disc, rx{}), 0);
    EXPECT_EQ(set_session(a, own_disc, rx{.period = 1'000'000, .latch = {99}}), -ENXIO);
    ASSERT_TRUE(receive(w, own_disc));
    EXPECT_TRUE(times_out_after(3000));
}

TEST_F(rx_session, up_to_8_packets_are_linked_and_the_first_0_ends_the_list)
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
        w.advance(detection_ticks + interval_ticks);
        std::string met;
        for (std::uint32_t disc = 1; disc <= 9; ++disc)
            met += std::to_string(tx_stats(a, disc)->num_latches);
        EXPECT_EQ(met, latches);
    }
}

TEST_F(rx_session, packets_of_other_vrfs_are_linked_the_own_one_first_then_the_newest)
{
    ASSERT_EQ(path_ready(a), 0);
    agent &red = w.open_agent(w.create_namespace("red"));
    agent &blue = w.open_agent(w.create_namespace("blue"));
    for (agent *owner : {&red, &blue, &a}) {
        EXPECT_EQ(set_packet(*owner, 1), 0);
        EXPECT_EQ(set_session(a, own_disc, rx{.latch = {1}}), 0);
        w.advance(detection_ticks + interval_ticks);
        EXPECT_EQ(tx_stats(*owner, 1)->num_latches, 1U);
    }
    EXPECT_EQ(tx_stats(red, 1)->num_latches + tx_stats(blue, 1)->num_latches, 2U);
}

TEST_F(rx_session, detection_time_is_multiplier_times_period_in_whole_ticks)
{
    constexpr struct {
        std::uint8_t multiplier;
        kelm_microsecs period;
        std::uint64_t ticks;
    } cases[] = {
        {3, 300'000, 900},
        {1, 1, 1},
        {1, 1000, 1},
        {1, 1001, 2},
        {255, 1, 1},
        {3, 333, 1},
        {3, 334, 2},
        {3, 3'333, 10},
        {50, 3'333, 167},
        {255, 300'000, 76'500},
        {1, 0xffffffff, 4'294'968},
        {2, 0x80000005, 1},
        {255, 0x01010101, 4'294'968}, // 255 x 0x01010101 is 2^32 - 1
        {255, 0x01020305, 16'844},    // 16,843,259 us more than 32 bits hold
        {0, 300'000, 0},
        {3, 0, 0},
        {128, 0x02000000, 0}, // modulo 2^32
    };
    for (const auto &[multiplier, period, ticks] : cases) {
        SCOPED_TRACE(testing::Message() << int{multiplier} << " * " << period);
        for (const bool heard : {false, true}) {
            ASSERT_EQ(set_session(a, own_disc, rx{.multiplier = multiplier, .period = period}), 0);
            if (heard && ticks != 0) {
                w.pass(ticks - 1);
                ASSERT_TRUE(receive(w, own_disc));
            }
            EXPECT_TRUE(times_out_after(std::max<std::uint64_t>(ticks, 1)));
        }
        EXPECT_EQ(w.logged("kelm Rx: Session 5 has zero detect time " + std::to_string(multiplier) +
                           " * " + std::to_string(period)),
                  ticks == 0 ? 2U : 0U);
    }
}

TEST_F(rx_session, has_failed_until_the_agent_configures_it_again)
{
    for (std::uint64_t timeouts = 1; timeouts <= 2; ++timeouts) {
        ASSERT_EQ(set_session(a, own_disc, rx{}), 0);
        w.advance(detection_ticks);
        ASSERT_TRUE(receive(w, own_disc)); // is received as ever, and changes nothing
        const kelm_msg_rx_stats stats = *rx_stats(a, own_disc);
        EXPECT_EQ(stats.num_received, timeouts);
        EXPECT_EQ(stats.num_timeout, timeouts);
        EXPECT_EQ(stats.last_state_change.sec, w.wall_ns() / 1'000'000'000);
        EXPECT_EQ(stats.last_state_change.nsec, w.wall_ns() % 1'000'000'000);
        EXPECT_EQ(w.timers(), 0U);
    }
}

TEST_F(rx_session, callback_that_waits_for_the_agent_to_stop_the_timer_does_nothing)
{
    agent &other = w.open_agent(w.initial());
    for (const bool refused : {false, true}) { // a request that is refused stops nothing
        ASSERT_EQ(set_session(a, own_disc, rx{}), 0);
        w.pass(detection_ticks);
        w.at_lock_point(1, [&] {
            rx stopping{.flags = 0};
            if (refused)
                stopping.latch = {99};
            EXPECT_EQ(set_session(other, own_disc, stopping), refused ? -ENXIO : 0);
        });
        w.run_timers();
        EXPECT_EQ(failures().size(), refused ? 1U : 0U);
        EXPECT_EQ(rx_stats(a, own_disc)->num_timeout, refused ? 1U : 0U);
    }
}

} // namespace
