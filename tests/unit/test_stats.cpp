// SPDX-License-Identifier: GPL-2.0
//
// Statistics of sessions and packets: what is recorded, and what restarts it.
#include "engine_fixture.h"
#include "kelm/clocks.h"

#include <array>

namespace
{

using namespace sim;

constexpr std::uint32_t DISC = 5;
constexpr std::int64_t USEC = 1000; // nanoseconds

// Three values of one kind: minimum, average, maximum.
using values = std::array<std::uint32_t, 3>;

struct stats : testing::Test {
    stats()
    {
        EXPECT_EQ(path_ready(a), 0);
        w.take_frames();
    }

    kelm_msg_rx_stats rx() { return rx_stats(a, DISC).value_or(kelm_msg_rx_stats{}); }
    kelm_msg_tx_stats tx() { return tx_stats(a, DISC).value_or(kelm_msg_tx_stats{}); }

    kelm_time now() const
    {
        return {static_cast<std::uint32_t>(w.wall_ns() / 1'000'000'000),
                static_cast<std::uint32_t>(w.wall_ns() % 1'000'000'000)};
    }

    // The session's next packet arrives after so many microseconds by the wall clock.
    void arrives_after(std::int64_t usecs)
    {
        w.step_wall_clock(usecs * USEC);
        ASSERT_TRUE(receive(w, DISC));
    }

    // And here after a round trip of so many units of 16 ns.
    void returns_after(std::uint32_t units)
    {
        control_packet packet{.your_discriminator = DISC};
        packet.my_discriminator = htonl(rtt_clock() - units);
        ASSERT_TRUE(w.deliver(w.initial(), arriving(packet)));
    }

    // The next transmission of a packet that is due in each tick.
    void sent_after(std::int64_t usecs)
    {
        w.step_wall_clock(usecs * USEC - 1000 * USEC);
        w.advance(1);
    }

    // A periodic broadcast, which restarts the snapshots.
    void broadcast()
    {
        ASSERT_EQ(set_interval(a, 1), 0);
        ASSERT_EQ(set_interval(a, 0), 0);
    }

    world w;
    agent &a = w.open_agent(w.initial());
};

values periods(const kelm_msg_rx_stats &s)
{
    return {s.min_period, s.avg_period, s.max_period};
}
values snapshot_periods(const kelm_msg_rx_stats &s)
{
    return {s.snapshot_min_period, s.snapshot_avg_period, s.snapshot_max_period};
}
values round_trips(const kelm_msg_rx_stats &s)
{
    return {s.min_rtt, s.avg_rtt, s.max_rtt};
}
values snapshot_round_trips(const kelm_msg_rx_stats &s)
{
    return {s.snapshot_min_rtt, s.snapshot_avg_rtt, s.snapshot_max_rtt};
}
values latenesses(const kelm_msg_tx_stats &s)
{
    return {s.min_lateness, s.avg_lateness, s.max_lateness};
}
values snapshot_latenesses(const kelm_msg_tx_stats &s)
{
    return {s.snapshot_min_lateness, s.snapshot_avg_lateness, s.snapshot_max_lateness};
}

// Transmissions within one, two, three periods, and after.
using buckets = std::array<std::uint64_t, 4>;

buckets by_periods(const kelm_msg_tx_stats &s)
{
    return {s.sent_within_1p, s.sent_within_2p, s.sent_within_3p, s.sent_after_3p};
}
buckets snapshot_by_periods(const kelm_msg_tx_stats &s)
{
    return {s.snapshot_sent_within_1p, s.snapshot_sent_within_2p, s.snapshot_sent_within_3p,
            s.snapshot_sent_after_3p};
}

bool operator==(const kelm_time &a, const kelm_time &b)
{
    return a.sec == b.sec && a.nsec == b.nsec;
}

TEST_F(stats, rx_intervals)
{
    ASSERT_EQ(set_session(a, DISC), 0);
    EXPECT_EQ(rx().num_received, 0U);
    EXPECT_TRUE(rx().last_rx_time == kelm_time{});
    EXPECT_TRUE(rx().last_state_change == now());
    arrives_after(1000);
    EXPECT_EQ(rx().num_received, 1U);
    EXPECT_EQ(periods(rx()), (values{0, 0, 0}));
    arrives_after(100);
    arrives_after(300);
    w.step_wall_clock(50 * USEC);
    EXPECT_EQ(rx().num_received, 3U);
    EXPECT_EQ(periods(rx()), (values{100, 200, 300}));
    EXPECT_EQ(snapshot_periods(rx()), (values{100, 200, 300}));
    EXPECT_EQ(rx().snapshot_num_received, 3U);
    EXPECT_EQ(rx().num_passup, 1U);
    EXPECT_FALSE(rx().last_rx_time == now());
    EXPECT_EQ(rx().timestamp_secs, now().sec);
    EXPECT_EQ(rx().timestamp_nsecs, now().nsec);
    EXPECT_EQ(rx().unsolicited, 0U);

    arrives_after(-5000); // set back: an interval of 0
    EXPECT_EQ(periods(rx()), (values{0, 133, 300}));
    // What does not fit into 32 bits is cut, but no minimum.
    arrives_after((std::int64_t{1} << 32) + 1000);
    EXPECT_EQ(rx().max_period, 1000U);
    EXPECT_EQ(rx().min_period, 0U);
    // Microseconds are what differs, not nanoseconds.
    ASSERT_EQ(get_stats(a, DISC, KELM_STATS_CLEAR).error, 0);
    w.step_wall_clock(USEC - w.wall_ns() % USEC);
    arrives_after(0);
    w.step_wall_clock(1999);
    arrives_after(0);
    EXPECT_EQ(periods(rx()), (values{1, 1, 1}));
}

TEST_F(stats, rx_round_trips)
{
    kelm_msg_rx_set_session session{};
    session.flags = KELM_RX_MYDISC_RTT;
    ASSERT_EQ(set_session(a, DISC, session), 0);
    EXPECT_EQ(round_trips(rx()), (values{0, 0, 0}));
    returns_after(625);
    EXPECT_EQ(round_trips(rx()), (values{10, 10, 10}));
    EXPECT_EQ(snapshot_round_trips(rx()), (values{10, 10, 10}));
    returns_after(1250);
    EXPECT_EQ(rx().last_rtt, 20U);
    returns_after(0); // no sample, but a packet to divide by
    EXPECT_EQ(round_trips(rx()), (values{10, 10, 20}));
    EXPECT_EQ(rx().last_rtt, 20U);
    broadcast();
    returns_after(63); // of 1008 ns
    EXPECT_EQ(round_trips(rx()), (values{1, 7, 20}));
    EXPECT_EQ(snapshot_round_trips(rx()), (values{1, 1, 1}));
    returns_after(0x80000000); // units are cut to 32 bits, their microseconds are not
    EXPECT_EQ(rx().max_rtt, 34'359'738U);

    // Without the flag the same field is the peer's.
    ASSERT_EQ(set_session(a, DISC + 1), 0);
    ASSERT_TRUE(receive(w, DISC + 1));
    EXPECT_EQ(round_trips(*rx_stats(a, DISC + 1)), (values{0, 0, 0}));
}

TEST_F(stats, rx_snapshot_restarts_with_each_broadcast)
{
    ASSERT_EQ(set_session(a, DISC), 0);
    arrives_after(0);
    arrives_after(100);
    broadcast();
    EXPECT_EQ(rx().snapshot_num_received, 0U);
    EXPECT_EQ(snapshot_periods(rx()), (values{0, 0, 0}));
    arrives_after(400); // an interval from before the restart
    EXPECT_EQ(rx().snapshot_num_received, 1U);
    EXPECT_EQ(snapshot_periods(rx()), (values{0, 0, 0}));
    arrives_after(50);
    EXPECT_EQ(snapshot_periods(rx()), (values{50, 50, 50}));
    EXPECT_EQ(rx().num_received, 4U);
    EXPECT_EQ(periods(rx()), (values{50, 183, 400}));
}

TEST_F(stats, rx_clear_leaves_the_snapshot)
{
    kelm_msg_rx_set_session session{};
    session.flags = KELM_RX_TIMER_ACTIVE;
    for (const std::uint32_t flags : {std::uint32_t{KELM_STATS_CLEAR},
                                      std::uint32_t{KELM_STATS_CLEAR | KELM_STATS_NO_REPORT}}) {
        ASSERT_EQ(set_session(a, DISC, session), 0);
        broadcast();
        arrives_after(0);
        arrives_after(100);
        w.advance(1000);
        EXPECT_EQ(rx().num_timeout, 1U);
        EXPECT_TRUE(rx().last_state_change.sec != 0);
        ASSERT_EQ(get_stats(a, DISC, flags).messages.size(), flags == KELM_STATS_CLEAR ? 1U : 0U);
        const kelm_msg_rx_stats cleared = rx();
        EXPECT_EQ(cleared.num_received + cleared.num_passup + cleared.num_timeout, 0U);
        EXPECT_EQ(periods(cleared), (values{0, 0, 0}));
        EXPECT_TRUE(cleared.last_rx_time == kelm_time{});
        EXPECT_TRUE(cleared.last_state_change == kelm_time{});
        EXPECT_EQ(cleared.snapshot_num_received, 2U);

        // There is nothing to measure the next interval from, in neither block.
        arrives_after(200);
        EXPECT_EQ(rx().num_received, 1U);
        EXPECT_EQ(rx().snapshot_num_received, 3U);
        EXPECT_EQ(snapshot_periods(rx()), (values{100, 50, 100}));
        arrives_after(300);
        EXPECT_EQ(periods(rx()), (values{300, 300, 300}));
        EXPECT_EQ(rx().snapshot_max_period, 300U);
    }
}

TEST_F(stats, restart_when_a_configuration_changes_the_period)
{
    kelm_msg_rx_set_session session{};
    kelm_msg_tx_set_packet packet{};
    packet.period = 1000;
    ASSERT_EQ(set_session(a, DISC, session), 0);
    ASSERT_EQ(set_packet(a, DISC, packet), 0);
    arrives_after(0);
    arrives_after(100);
    w.advance(10);
    ASSERT_EQ(set_session(a, DISC, session), 0);
    ASSERT_EQ(set_packet(a, DISC, packet), 0);
    EXPECT_EQ(rx().num_received, 2U);
    EXPECT_GE(tx().num_sent, 9U);
    session.period = 300'001;
    packet.period = 1001;
    ASSERT_EQ(set_session(a, DISC, session), 0);
    ASSERT_EQ(set_packet(a, DISC, packet), 0);
    EXPECT_EQ(rx().num_received + rx().snapshot_num_received, 0U);
    EXPECT_EQ(tx().num_sent + tx().snapshot_num_sent, 0U);
    EXPECT_EQ(rx().num_passup, 1U); // is no interval statistics
    EXPECT_NE(rx().last_rx_time.sec, 0U);
    EXPECT_NE(tx().last_tx_time.sec, 0U);
}

TEST_F(stats, tx_latenesses)
{
    kelm_msg_tx_set_packet packet{};
    packet.period = 100; // microseconds: due in each tick
    ASSERT_EQ(set_packet(a, DISC, packet), 0);
    EXPECT_TRUE(tx().last_tx_time == kelm_time{});
    sent_after(0);
    EXPECT_EQ(tx().num_sent, 1U);
    EXPECT_EQ(latenesses(tx()), (values{0, 0, 0}));
    EXPECT_EQ(by_periods(tx()), (buckets{0, 0, 0, 0}));
    for (const std::int64_t interval : {100, 150, 200, 250, 300, 301})
        sent_after(interval);
    EXPECT_EQ(tx().num_sent, 7U);
    EXPECT_EQ(latenesses(tx()), (values{100, 1301 / 6, 301}));
    EXPECT_EQ(by_periods(tx()), (buckets{1, 2, 2, 1}));
    EXPECT_EQ(snapshot_latenesses(tx()), (values{100, 1301 / 6, 301}));
    EXPECT_EQ(snapshot_by_periods(tx()), (buckets{1, 2, 2, 1}));
    EXPECT_TRUE(tx().last_tx_time == now());
    EXPECT_EQ(tx().timestamp_nsecs, now().nsec);
    EXPECT_EQ(w.frames().size(), 7U);

    broadcast();
    sent_after(-7000); // set back: an interval of 0, and the first of the new snapshot
    EXPECT_EQ(by_periods(tx()), (buckets{2, 2, 2, 1}));
    EXPECT_EQ(tx().min_lateness, 0U);
    EXPECT_EQ(tx().snapshot_num_sent, 1U);
    EXPECT_EQ(snapshot_latenesses(tx()), (values{0, 0, 0}));
    EXPECT_EQ(snapshot_by_periods(tx()), (buckets{0, 0, 0, 0}));
    sent_after(150);
    EXPECT_EQ(snapshot_latenesses(tx()), (values{150, 150, 150}));
    EXPECT_EQ(snapshot_by_periods(tx()), (buckets{0, 1, 0, 0}));
}

TEST_F(stats, tx_multiples_of_the_period_are_of_32_bits)
{
    constexpr std::uint32_t PERIOD = 0x80000001; // twice that is 2, three times 0x80000003
    kelm_msg_tx_set_packet packet{};
    packet.period = PERIOD;
    ASSERT_EQ(set_packet(a, DISC, packet), 0);
    const auto sends_after = [this](std::int64_t usecs) {
        w.step_wall_clock(-w.wall_ns() % USEC);
        const std::int64_t start = w.wall_ns();
        w.pass(PERIOD / 1000 + 1);
        w.step_wall_clock(start + usecs * USEC - w.wall_ns());
        w.run_timers();
    };
    sends_after(0);
    sends_after(PERIOD);
    sends_after(std::int64_t{PERIOD} + 2);
    sends_after(std::int64_t{PERIOD} + 3);
    EXPECT_EQ(tx().num_sent, 4U);
    EXPECT_EQ(by_periods(tx()), (buckets{1, 0, 1, 1}));
}

TEST_F(stats, tx_records_sends_that_fail_but_none_out_of_band)
{
    kelm_msg_tx_set_packet packet{};
    packet.period = 100'000;
    ASSERT_EQ(set_packet(a, DISC, packet), 0);
    w.fail(service::send, -EAGAIN, 1);
    w.advance(100);
    w.fail(service::send, 51, 1); // of 52 bytes
    w.advance(100);
    EXPECT_EQ(tx().num_sent, 2U);
    EXPECT_EQ(tx().num_tx_errors, 2U);
    EXPECT_NE(tx().max_lateness, 0U);
    const kelm_msg_tx_stats before = tx();

    w.take_frames();
    packet.flags = KELM_TX_SEND_OOB;
    w.advance(10);
    ASSERT_EQ(set_packet(a, DISC, packet), 0);
    w.advance(2);
    EXPECT_EQ(w.frames().size(), 1U);
    EXPECT_EQ(tx().num_sent, before.num_sent);
    EXPECT_TRUE(tx().last_tx_time == before.last_tx_time);
    w.advance(100);
    EXPECT_EQ(tx().num_sent, 3U);
    EXPECT_EQ(tx().max_lateness, before.max_lateness); // from in-band to in-band
}

TEST_F(stats, tx_clear_leaves_the_snapshot)
{
    kelm_msg_tx_set_packet packet{};
    packet.period = 100;
    ASSERT_EQ(set_packet(a, DISC, packet), 0);
    w.fail(service::send, -EAGAIN, 1);
    sent_after(0);
    sent_after(150);
    ASSERT_EQ(get_stats(a, DISC, KELM_STATS_CLEAR).messages.size(), 1U);
    const kelm_msg_tx_stats cleared = tx();
    EXPECT_EQ(cleared.num_sent + cleared.num_tx_errors, 0U);
    EXPECT_EQ(latenesses(cleared), (values{0, 0, 0}));
    EXPECT_EQ(by_periods(cleared), (buckets{0, 0, 0, 0}));
    EXPECT_TRUE(cleared.last_tx_time == kelm_time{});
    EXPECT_EQ(cleared.snapshot_num_sent, 2U);
    EXPECT_EQ(snapshot_by_periods(cleared), (buckets{0, 1, 0, 0}));

    // There is nothing to measure the next interval from, in neither block.
    sent_after(90);
    EXPECT_EQ(tx().num_sent, 1U);
    EXPECT_EQ(tx().snapshot_num_sent, 3U);
    EXPECT_EQ(snapshot_by_periods(tx()), (buckets{0, 1, 0, 0}));
    EXPECT_EQ(tx().snapshot_max_lateness, 150U);
    sent_after(80);
    EXPECT_EQ(latenesses(tx()), (values{80, 80, 80}));
    EXPECT_EQ(snapshot_by_periods(tx()), (buckets{1, 1, 0, 0}));
}

} // namespace
