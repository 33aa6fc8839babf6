// SPDX-License-Identifier: GPL-2.0
//
// The detection timeout: exact to the tick, and once per silence. What restarts it and what does
// not, late timers and clocks that step are tested in whole worlds.
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
    // Packets are received as before, and change nothing.
    ASSERT_TRUE(receive(w, SESSION));
    EXPECT_EQ(rx_stats(a, SESSION)->num_received, 2U);
    EXPECT_EQ(w.timers(), 0U);
    ASSERT_EQ(set_session(a, SESSION, rx{}), 0);
    EXPECT_TRUE(timer_active());
    EXPECT_TRUE(times_out_after(DETECTION));
    EXPECT_EQ(rx_stats(a, SESSION)->num_timeout, 2U);
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

} // namespace
