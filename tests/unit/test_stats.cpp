// SPDX-License-Identifier: GPL-2.0
//
// Statistics of sessions and packets: what is recorded, and what restarts it. That a new period
// does is tested with the configuration of either.
#include <array>

#include "kelm/clocks.h"
#include "wire_fixture.h"

namespace
{

using namespace sim;

constexpr std::int64_t USEC = 1000; // nanoseconds

// Minimum, average and maximum, for the lifetime and since the last broadcast (snapshot).
using values = std::array<std::uint32_t, 3>;
using both_values = std::pair<values, values>;

// Transmissions within one, two, three periods, and after; likewise.
using buckets = std::array<std::uint64_t, 4>;
using both_buckets = std::pair<buckets, buckets>;

constexpr values NO_VALUES = {};
constexpr buckets NO_BUCKETS = {};

struct stats : engine_test {
    stats()
    {
        EXPECT_EQ(path_ready(a), 0);
        w.take_frames();
    }

    kelm_msg_rx_stats rx() { return rx_stats(a, SESSION).value_or(kelm_msg_rx_stats{}); }
    kelm_msg_tx_stats tx() { return tx_stats(a, SESSION).value_or(kelm_msg_tx_stats{}); }

    both_values periods()
    {
        const auto s = rx();
        return {{s.min_period, s.avg_period, s.max_period},
                {s.snapshot_min_period, s.snapshot_avg_period, s.snapshot_max_period}};
    }
    both_values round_trips()
    {
        const auto s = rx();
        return {{s.min_rtt, s.avg_rtt, s.max_rtt},
                {s.snapshot_min_rtt, s.snapshot_avg_rtt, s.snapshot_max_rtt}};
    }
    both_values latenesses()
    {
        const auto s = tx();
        return {{s.min_lateness, s.avg_lateness, s.max_lateness},
                {s.snapshot_min_lateness, s.snapshot_avg_lateness, s.snapshot_max_lateness}};
    }
    both_buckets by_periods()
    {
        const auto s = tx();
        return {{s.sent_within_1p, s.sent_within_2p, s.sent_within_3p, s.sent_after_3p},
                {s.snapshot_sent_within_1p, s.snapshot_sent_within_2p, s.snapshot_sent_within_3p,
                 s.snapshot_sent_after_3p}};
    }

    // All times as nanoseconds.
    static std::int64_t ns(kelm_time time) { return ns(time.sec, time.nsec); }
    static std::int64_t ns(std::uint64_t sec, std::uint64_t nsec)
    {
        return static_cast<std::int64_t>(sec * 1'000'000'000 + nsec);
    }

    // The session's next packet arrives after so many microseconds by the wall clock.
    void arrives_after(std::int64_t usecs)
    {
        w.step_wall_clock(usecs * USEC);
        ASSERT_TRUE(receive(w, SESSION));
    }

    // And here after a round trip of so many units of 16 ns.
    void returns_after(std::uint32_t units)
    {
        ASSERT_TRUE(
            w.deliver(w.initial(), arriving({.my_discriminator = htonl(rtt_clock() - units)})));
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
};

TEST_F(stats, rx_intervals)
{
    ASSERT_EQ(set_session(a, SESSION), 0);
    EXPECT_EQ(rx().num_received, 0U);
    EXPECT_EQ(ns(rx().last_rx_time), 0);
    EXPECT_EQ(ns(rx().last_state_change), w.wall_ns());
    arrives_after(1000);
    EXPECT_EQ(periods(), (both_values{NO_VALUES, NO_VALUES}));
    arrives_after(100);
    arrives_after(300);
    EXPECT_EQ(periods(), (both_values{{100, 200, 300}, {100, 200, 300}}));
    broadcast();
    w.step_wall_clock(50 * USEC);
    const kelm_msg_rx_stats now = rx();
    EXPECT_EQ(now.num_received, 3U);
    EXPECT_EQ(now.snapshot_num_received, 0U);
    EXPECT_EQ(now.num_passup, 1U);
    EXPECT_EQ(ns(now.last_rx_time), w.wall_ns() - 50 * USEC);
    EXPECT_EQ(ns(now.timestamp_secs, now.timestamp_nsecs), w.wall_ns());
    EXPECT_EQ(now.unsolicited, 0U);

    // A maximum that does not fit into 32 bits is cut, but is no minimum.
    arrives_after((std::int64_t{1} << 32) + 20);
    // It is from before the snapshot's first packet, and not in it.
    EXPECT_EQ(periods(), (both_values{{100, 1'431'655'922, 70}, NO_VALUES}));
    arrives_after(-5000); // set back: an interval of 0
    EXPECT_EQ(periods(), (both_values{{0, 1'073'741'941, 70}, NO_VALUES}));
    arrives_after(50);
    EXPECT_EQ(periods().second, (values{0, 25, 50}));
    // Microseconds are what differs, not nanoseconds.
    ASSERT_EQ(get_stats(a, SESSION, KELM_STATS_CLEAR).error, 0);
    w.step_wall_clock(USEC - w.wall_ns() % USEC);
    arrives_after(0);
    w.step_wall_clock(1999);
    arrives_after(0);
    EXPECT_EQ(periods().first, (values{1, 1, 1}));
}

TEST_F(stats, rx_round_trips)
{
    ASSERT_EQ(set_session(a, SESSION), 0);
    returns_after(625); // without the flag the field is the peer's own
    EXPECT_EQ(round_trips(), (both_values{NO_VALUES, NO_VALUES}));
    ASSERT_EQ(delete_session(a, SESSION), 0);

    ASSERT_EQ(set_session(a, SESSION, sim::rx{.flags = KELM_RX_MYDISC_RTT}), 0);
    EXPECT_EQ(round_trips(), (both_values{NO_VALUES, NO_VALUES}));
    returns_after(625);
    EXPECT_EQ(round_trips(), (both_values{{10, 10, 10}, {10, 10, 10}}));
    returns_after(1250);
    returns_after(0); // no sample, but a packet to divide by
    EXPECT_EQ(round_trips().first, (values{10, 10, 20}));
    EXPECT_EQ(rx().last_rtt, 20U);
    broadcast();
    returns_after(63); // of 1008 ns
    EXPECT_EQ(round_trips(), (both_values{{1, 7, 20}, {1, 1, 1}}));
    returns_after(0x80000000); // units are cut to 32 bits, their microseconds are not
    EXPECT_EQ(rx().max_rtt, 34'359'738U);
}

TEST_F(stats, rx_clear_leaves_the_snapshot)
{
    for (const std::uint32_t flags : {0U, std::uint32_t{KELM_STATS_NO_REPORT}}) {
        ASSERT_EQ(set_session(a, SESSION, sim::rx{}), 0);
        broadcast();
        arrives_after(0);
        arrives_after(100);
        w.advance(DETECTION);
        EXPECT_EQ(get_stats(a, SESSION, KELM_STATS_NO_REPORT).messages.size(), 0U);
        EXPECT_EQ(rx().num_timeout, 1U);
        ASSERT_EQ(get_stats(a, SESSION, KELM_STATS_CLEAR | flags).messages.size(),
                  flags == 0 ? 1U : 0U);
        const kelm_msg_rx_stats cleared = rx();
        EXPECT_EQ(cleared.num_received + cleared.num_passup + cleared.num_timeout, 0U);
        EXPECT_EQ(ns(cleared.last_rx_time) + ns(cleared.last_state_change), 0);
        EXPECT_EQ(cleared.snapshot_num_received, 2U);
        EXPECT_EQ(periods(), (both_values{NO_VALUES, {100, 100, 100}}));

        // There is nothing to measure the next interval from, in neither block.
        arrives_after(200);
        EXPECT_EQ(rx().num_received, 1U);
        EXPECT_EQ(periods(), (both_values{NO_VALUES, {100, 50, 100}}));
        arrives_after(300);
        EXPECT_EQ(periods(), (both_values{{300, 300, 300}, {100, 133, 300}}));
    }
}

TEST_F(stats, tx_latenesses)
{
    ASSERT_EQ(set_packet(a, SESSION, sim::tx{.period = 100}), 0); // due in each tick
    EXPECT_EQ(ns(tx().last_tx_time), 0);
    sent_after(0);
    EXPECT_EQ(tx().num_sent, 1U);
    EXPECT_EQ(latenesses(), (both_values{NO_VALUES, NO_VALUES}));
    EXPECT_EQ(by_periods(), (both_buckets{NO_BUCKETS, NO_BUCKETS}));
    for (const std::int64_t interval : {100, 150, 200, 250, 300, 301})
        sent_after(interval);
    EXPECT_EQ(latenesses(), (both_values{{100, 1301 / 6, 301}, {100, 1301 / 6, 301}}));
    EXPECT_EQ(by_periods(), (both_buckets{{1, 2, 2, 1}, {1, 2, 2, 1}}));
    const kelm_msg_tx_stats now = tx();
    EXPECT_EQ(now.num_sent, 7U);
    EXPECT_EQ(ns(now.last_tx_time), w.wall_ns());
    EXPECT_EQ(ns(now.timestamp_secs, now.timestamp_nsecs), w.wall_ns());

    broadcast();
    sent_after(-7000); // set back: an interval of 0, and the first of the new snapshot
    EXPECT_EQ(by_periods(), (both_buckets{{2, 2, 2, 1}, NO_BUCKETS}));
    EXPECT_EQ(latenesses(), (both_values{{0, 1301 / 7, 301}, NO_VALUES}));
    EXPECT_EQ(tx().snapshot_num_sent, 1U);
    sent_after(150);
    EXPECT_EQ(latenesses().second, (values{150, 150, 150}));
    EXPECT_EQ(by_periods().second, (buckets{0, 1, 0, 0}));
}

TEST_F(stats, tx_multiples_of_the_period_are_of_32_bits)
{
    constexpr std::uint32_t PERIOD = 0x80000001; // twice that is 2, three times 0x80000003
    ASSERT_EQ(set_packet(a, SESSION, sim::tx{.period = PERIOD}), 0);
    for (const std::uint32_t usecs : {0U, PERIOD, PERIOD + 2, PERIOD + 3}) {
        w.step_wall_clock(-w.wall_ns() % USEC);
        const std::int64_t start = w.wall_ns();
        w.pass(PERIOD / 1000 + 1);
        w.step_wall_clock(start + usecs * USEC - w.wall_ns());
        w.run_timers();
    }
    EXPECT_EQ(tx().num_sent, 4U);
    EXPECT_EQ(by_periods().first, (buckets{1, 0, 1, 1}));
}

TEST_F(stats, tx_clear_leaves_the_snapshot)
{
    ASSERT_EQ(set_packet(a, SESSION, sim::tx{.period = 100}), 0);
    w.fail(service::send, -EAGAIN, 1);
    sent_after(0);
    sent_after(150);
    EXPECT_EQ(get_stats(a, SESSION, KELM_STATS_NO_REPORT).messages.size(), 0U);
    EXPECT_EQ(tx().num_sent, 2U);
    ASSERT_EQ(get_stats(a, SESSION, KELM_STATS_CLEAR).messages.size(), 1U);
    const kelm_msg_tx_stats cleared = tx();
    EXPECT_EQ(cleared.num_sent + cleared.num_tx_errors, 0U);
    EXPECT_EQ(ns(cleared.last_tx_time), 0);
    EXPECT_EQ(cleared.snapshot_num_sent, 2U);
    EXPECT_EQ(latenesses(), (both_values{NO_VALUES, {150, 150, 150}}));
    EXPECT_EQ(by_periods(), (both_buckets{NO_BUCKETS, {0, 1, 0, 0}}));

    // There is nothing to measure the next interval from, in neither block.
    sent_after(90);
    EXPECT_EQ(tx().num_sent, 1U);
    EXPECT_EQ(latenesses(), (both_values{NO_VALUES, {150, 75, 150}}));
    EXPECT_EQ(by_periods().second, (buckets{0, 1, 0, 0}));
    sent_after(80);
    EXPECT_EQ(latenesses(), (both_values{{80, 80, 80}, {80, 76, 150}}));
    EXPECT_EQ(by_periods().second, (buckets{1, 1, 0, 0}));
}

} // namespace
