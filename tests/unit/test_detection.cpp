// SPDX-License-Identifier: GPL-2.0
//
// The detection timeout: exact to the tick, once per silence, whatever does not restart it.
#include "wire_fixture.h"

namespace
{

using namespace sim;

struct detection : engine_test {
    std::size_t failures() { return listener.read_messages().size(); }

    // Whether the session times out after so many ticks and not before.
    bool times_out_after(std::uint64_t ticks)
    {
        w.pass(ticks - 1);
        w.run_timers();
        const std::size_t early = failures();
        w.advance(1);
        return early == 0 && failures() == 1;
    }

    [[nodiscard]] bool timer_active()
    {
        const auto states = bodies<kelm_msg_rx_sync>(sync_dump(a).messages, KELM_MSG_RX_SYNC);
        return states.at(0).timer_active != 0;
    }

    agent &listener = w.open_agent(w.initial(), {.groups = NOTIFICATION});
};

TEST_F(detection, time_is_multiplier_times_period_in_whole_ticks)
{
    struct detection_time {
        std::uint8_t multiplier;
        kelm_microsecs period;
        std::uint64_t ticks;
    };
    constexpr detection_time cases[] = {
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
    };
    for (const auto &[multiplier, period, ticks] : cases) {
        SCOPED_TRACE(testing::Message() << int{multiplier} << " * " << period);
        ASSERT_EQ(set_session(a, SESSION, rx{.multiplier = multiplier, .period = period}), 0);
        EXPECT_TRUE(times_out_after(ticks));
        ASSERT_EQ(set_session(a, SESSION, rx{.multiplier = multiplier, .period = period}), 0);
        w.pass(ticks - 1);
        ASSERT_TRUE(receive(w, SESSION));
        EXPECT_TRUE(times_out_after(ticks));
    }
}

TEST_F(detection, is_over_until_the_agent_configures_again)
{
    ASSERT_EQ(set_session(a, SESSION, rx{}), 0);
    ASSERT_TRUE(receive(w, SESSION));
    w.advance(DETECTION);
    EXPECT_EQ(failures(), 1U);
    kelm_msg_rx_stats stats = *rx_stats(a, SESSION);
    EXPECT_EQ(stats.num_timeout, 1U);
    EXPECT_EQ(stats.last_state_change.sec, w.wall_ns() / 1'000'000'000);
    EXPECT_EQ(stats.last_state_change.nsec, w.wall_ns() % 1'000'000'000);
    EXPECT_FALSE(timer_active());
    EXPECT_EQ(w.timers(), 0U);
    // Packets are received and passed up as before, and change nothing.
    agent &control = w.open_agent(w.initial(), {.groups = CONTROL});
    ASSERT_TRUE(receive(w, SESSION));
    ASSERT_TRUE(w.deliver(w.initial(), arriving({.state = BFD_STATE_DOWN})));
    EXPECT_EQ(names(control.read_messages()), std::vector<std::string>{"packet_change 5"});
    EXPECT_EQ(rx_stats(a, SESSION)->num_received, 3U);
    EXPECT_EQ(w.timers(), 0U);
    w.advance(10 * DETECTION);
    EXPECT_EQ(failures(), 0U);
    ASSERT_EQ(set_session(a, SESSION, rx{}), 0);
    EXPECT_TRUE(timer_active());
    EXPECT_TRUE(times_out_after(DETECTION));
    EXPECT_EQ(rx_stats(a, SESSION)->num_timeout, 2U);
}

TEST_F(detection, what_is_not_accepted_does_not_restart_it)
{
    ASSERT_EQ(set_session(a, SESSION, rx{.auth_type = BFD_AUTH_PASSWORD}), 0);
    datagram good;
    good.payload = with_section({}, auth_section(BFD_AUTH_PASSWORD));
    datagram wrong_password = good, invalid = good, unreadable = good;
    wrong_password.payload.back() ^= 1;
    invalid.payload[2] = 0;
    unreadable.form = buffer_form::fragmented;
    for (int i = 0; i < 8; ++i) {
        w.advance(DETECTION / 9);
        for (const datagram &bad : {wrong_password, invalid, arriving({}), // not authenticated
                                    arriving({.your_discriminator = SESSION + 32}), unreadable}) {
            if (bad.form == buffer_form::fragmented)
                w.fail(service::skb_reallocation, -ENOMEM);
            ASSERT_TRUE(w.deliver(w.initial(), bad));
        }
    }
    EXPECT_EQ(rx_stats(a, SESSION)->num_auth_fail, 16U);
    EXPECT_TRUE(times_out_after(DETECTION / 9));
    // What is accepted and cannot be passed up does.
    ASSERT_EQ(set_session(a, SESSION, rx{.auth_type = BFD_AUTH_PASSWORD}), 0);
    w.advance(DETECTION - 1);
    w.fail(service::allocation, -ENOMEM);
    ASSERT_TRUE(w.deliver(w.initial(), good));
    EXPECT_TRUE(times_out_after(DETECTION));
}

TEST_F(detection, nobody_listening_is_counted_and_the_latch_happens_all_the_same)
{
    ASSERT_EQ(path_ready(a), 0);
    ASSERT_EQ(set_packet(a, 1), 0);
    ASSERT_EQ(set_session(a, SESSION, rx{.latch = {1}}), 0);
    listener.close();
    w.advance(DETECTION + 300);
    EXPECT_EQ(module_stats(a).netlink_failure_fail, 1U);
    EXPECT_EQ(tx_stats(a, 1)->num_latches, 1U);
    EXPECT_EQ(rx_stats(a, SESSION)->num_timeout, 1U);
    agent &full = w.open_agent(w.initial(), {.groups = NOTIFICATION, .queue_limit = 0});
    ASSERT_EQ(set_session(a, SESSION, rx{}), 0);
    w.advance(DETECTION);
    EXPECT_EQ(module_stats(a).netlink_failure_fail, 2U);
    full.close();
}

TEST_F(detection, a_late_timer_reports_once_and_a_datagram_before_it_not_at_all)
{
    ASSERT_EQ(set_session(a, SESSION, rx{}), 0);
    w.pass(10 * DETECTION);
    w.run_timers();
    EXPECT_EQ(failures(), 1U);
    ASSERT_EQ(set_session(a, SESSION, rx{}), 0);
    w.pass(10 * DETECTION); // the datagram is there before the timers get to run
    ASSERT_TRUE(receive(w, SESSION));
    w.run_timers();
    EXPECT_EQ(failures(), 0U);
    EXPECT_TRUE(times_out_after(DETECTION));
}

TEST_F(detection, callback_that_waits_for_the_agent_to_stop_the_timer_does_nothing)
{
    agent &other = w.open_agent(w.initial());
    for (const bool refused : {false, true}) { // a request that is refused stops nothing
        ASSERT_EQ(set_session(a, SESSION, rx{}), 0);
        w.pass(DETECTION);
        w.at_lock_point(1, [&] {
            rx stopping{.flags = 0};
            if (refused)
                stopping.latch = {99};
            EXPECT_EQ(set_session(other, SESSION, stopping), refused ? -ENXIO : 0);
        });
        w.run_timers();
        EXPECT_EQ(w.actions_left(), 0U);
        EXPECT_EQ(failures(), refused ? 1U : 0U);
        EXPECT_EQ(rx_stats(a, SESSION)->num_timeout, refused ? 1U : 0U);
    }
}

TEST_F(detection, wall_clock_steps_do_not_matter)
{
    ASSERT_EQ(set_session(a, SESSION, rx{}), 0);
    for (const std::int64_t step : {1'000'000'000'000, -2'000'000'000'000}) {
        w.advance(100);
        w.step_wall_clock(step);
    }
    EXPECT_TRUE(times_out_after(DETECTION - 200));
}

} // namespace
