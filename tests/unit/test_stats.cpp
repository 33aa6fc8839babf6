// SPDX-License-Identifier: GPL-2.0
//
// Statistics of sessions and packets against a model that keeps every interval: what is recorded,
// and what restarts it.
#include <algorithm>
#include <numeric>
#include <optional>

#include "engine_fixture.h"
#include "kelm/clocks.h"
#include "platform/sim/random.h"

namespace
{

using namespace sim;

using numbers = std::vector<std::uint64_t>;

// Minimum, average and maximum.
numbers extremes(const numbers &samples, std::uint64_t divisor)
{
    if (samples.empty())
        return {0, 0, 0};
    const auto [min, max] = std::ranges::minmax(samples);
    return {min, std::accumulate(samples.begin(), samples.end(), std::uint64_t{0}) / divisor, max};
}

// What has been recorded since it was restarted.
struct record {
    std::uint64_t packets = 0;
    numbers intervals = {};            // microseconds
    numbers round_trips = {};          // units of 16 ns
    numbers by_periods = {0, 0, 0, 0}; // within one, two, three periods, and after

    // As messages have it. Intervals that were left out count for the average all the same.
    [[nodiscard]] numbers received() const
    {
        numbers result = periods();
        for (const std::uint64_t units : extremes(round_trips, packets != 0 ? packets : 1))
            result.push_back(units * 16 / 1000);
        return result;
    }
    [[nodiscard]] numbers sent() const
    {
        numbers result = periods();
        std::ranges::copy(by_periods, std::back_inserter(result));
        return result;
    }

  private:
    [[nodiscard]] numbers periods() const
    {
        numbers result = extremes(intervals, packets > 1 ? packets - 1 : 1);
        result.insert(result.begin(), packets);
        return result;
    }
};

struct model {
    record lifetime, snapshot;
    std::optional<std::int64_t> last; // packet, nanoseconds on the wall clock

    void packet(std::int64_t now, std::uint64_t period, std::uint32_t round_trip)
    {
        for (record *each : {&lifetime, &snapshot}) {
            ++each->packets;
            if (round_trip != 0)
                each->round_trips.push_back(round_trip);
            if (each->packets == 1 || !last)
                continue;
            // The clock may have been set back.
            const auto interval =
                static_cast<std::uint64_t>(std::max<std::int64_t>(now / 1000 - *last / 1000, 0));
            each->intervals.push_back(interval);
            const std::uint64_t bucket = interval == 0 ? 0 : (interval - 1) / period;
            ++each->by_periods[std::min<std::uint64_t>(bucket, 3)];
        }
        last = now;
    }
};

struct stats : engine_test {
    stats() { EXPECT_EQ(path_ready(a), 0); }

    // A packet goes out and one comes in, so long after those before. That it is sent in each tick
    // takes a period below one.
    void exchange(std::int64_t ns, std::uint32_t round_trip)
    {
        w.step_wall_clock(ns - 1'000'000);
        w.advance(1);
        ASSERT_TRUE(w.deliver(w.initial(),
                              arriving({.my_discriminator = htonl(rtt_clock() - round_trip)})));
        expected.packet(w.wall_ns(), period, round_trip);
    }

    void set_period(kelm_microsecs usecs)
    {
        period = usecs;
        ASSERT_EQ(set_packet(a, own_disc, tx{.period = usecs}), 0);
        ASSERT_EQ(set_session(a, own_disc, rx{.flags = KELM_RX_MYDISC_RTT, .period = usecs}), 0);
    }

    void compare()
    {
        const kelm_msg_rx_stats r = *rx_stats(a, own_disc);
        const kelm_msg_tx_stats t = *tx_stats(a, own_disc);
        const auto &[lifetime, snapshot, last] = expected;
        EXPECT_EQ((numbers{r.num_received, r.min_period, r.avg_period, r.max_period, r.min_rtt,
                           r.avg_rtt, r.max_rtt}),
                  lifetime.received());
        EXPECT_EQ((numbers{r.snapshot_num_received, r.snapshot_min_period, r.snapshot_avg_period,
                           r.snapshot_max_period, r.snapshot_min_rtt, r.snapshot_avg_rtt,
                           r.snapshot_max_rtt}),
                  snapshot.received());
        EXPECT_EQ((numbers{t.num_sent, t.min_lateness, t.avg_lateness, t.max_lateness,
                           t.sent_within_1p, t.sent_within_2p, t.sent_within_3p, t.sent_after_3p}),
                  lifetime.sent());
        EXPECT_EQ(
            (numbers{t.snapshot_num_sent, t.snapshot_min_lateness, t.snapshot_avg_lateness,
                     t.snapshot_max_lateness, t.snapshot_sent_within_1p, t.snapshot_sent_within_2p,
                     t.snapshot_sent_within_3p, t.snapshot_sent_after_3p}),
            snapshot.sent());
        EXPECT_EQ(r.last_rtt,
                  lifetime.round_trips.empty() ? 0 : lifetime.round_trips.back() * 16 / 1000);
        for (const kelm_time &time : {r.last_rx_time, t.last_tx_time})
            EXPECT_EQ(time.sec * 1'000'000'000LL + time.nsec, last.value_or(0));
        EXPECT_EQ(r.timestamp_secs * 1'000'000'000 + r.timestamp_nsecs,
                  static_cast<std::uint64_t>(w.wall_ns()));
        EXPECT_EQ(t.timestamp_nsecs, r.timestamp_nsecs);
    }

    std::uint64_t period = 0;
    model expected;
};

TEST_F(stats, are_those_of_the_packets_since_they_were_restarted)
{
    constexpr std::uint32_t clearing[] = {KELM_STATS_CLEAR,
                                          KELM_STATS_CLEAR | KELM_STATS_NO_REPORT};
    random_source random(1);
    set_period(100);
    for (int step = 0; step < 2000 && !HasFailure(); ++step) {
        SCOPED_TRACE(step);
        switch (random.below(20)) {
        case 0: // CLEAR leaves the snapshots, but nothing to measure the next interval from
            get_stats(a, own_disc, clearing[random.below(2)]);
            expected.lifetime = {};
            expected.last.reset();
            break;
        case 1: // a periodic broadcast restarts the snapshots
            ASSERT_EQ(set_interval(a, 1), 0);
            ASSERT_EQ(set_interval(a, 0), 0);
            expected.snapshot = {};
            break;
        case 2:
            set_period(static_cast<kelm_microsecs>(100 + period % 300));
            expected.lifetime = expected.snapshot = {};
            break;
        case 3: // neither reads nor clears
            get_stats(a, own_disc, KELM_STATS_NO_REPORT);
            set_period(static_cast<kelm_microsecs>(period));
            break;
        default: {
            const std::uint64_t usecs = random.below(5) * period + random.below(3) - 1;
            constexpr std::uint32_t round_trips[] = {0, 62, 63, 625, 1250, 0x80000000};
            exchange(static_cast<std::int64_t>(usecs * 1000 + random.below(1000)),
                     round_trips[random.below(std::size(round_trips))]);
        }
        }
        compare();
    }
}

TEST_F(stats, counters_of_events_are_cleared_on_request_alone)
{
    ASSERT_EQ(set_packet(a, own_disc), 0);
    ASSERT_EQ(set_session(a, own_disc, rx{}), 0);
    ASSERT_TRUE(receive(w, own_disc));
    w.fail(service::send, -ENOBUFS);
    w.advance(detection_ticks);
    ASSERT_EQ(set_session(a, own_disc, rx{.period = 1}), 0);
    ASSERT_EQ(set_packet(a, own_disc, tx{.period = 1}), 0);
    const auto events = [this] {
        const kelm_msg_rx_stats r = *rx_stats(a, own_disc);
        return numbers{r.num_passup, r.num_timeout, tx_stats(a, own_disc)->num_tx_errors,
                       r.last_state_change.sec != 0};
    };
    EXPECT_EQ(events(), numbers(4, 1));
    ASSERT_EQ(get_stats(a, own_disc, KELM_STATS_CLEAR).error, 0);
    EXPECT_EQ(events(), numbers(4, 0));
}

// What does not fit into 32 bits: a maximum is cut, and is no minimum; so are multiples of a
// period.
TEST_F(stats, fields_and_multiples_of_the_period_are_of_32_bits)
{
    constexpr std::uint32_t above_half = 0x80000001; // twice that is 2, three times 0x80000003
    constexpr std::int64_t long_ago = (std::int64_t{1} << 32) + 70;
    ASSERT_EQ(set_packet(a, own_disc, tx{.period = above_half}), 0);
    for (const std::int64_t usecs :
         {std::int64_t{0}, std::int64_t{above_half}, above_half + std::int64_t{2},
          above_half + std::int64_t{3}, long_ago}) {
        w.step_wall_clock(-w.wall_ns() % 1000);
        const std::int64_t start = w.wall_ns();
        w.pass(above_half / 1000 + 1);
        w.step_wall_clock(start + usecs * 1000 - w.wall_ns());
        w.run_timers();
    }
    const kelm_msg_tx_stats now = *tx_stats(a, own_disc);
    EXPECT_EQ((numbers{now.sent_within_1p, now.sent_within_2p, now.sent_within_3p,
                       now.sent_after_3p, now.min_lateness, now.max_lateness}),
              (numbers{1, 0, 1, 2, above_half, 70}));
}

} // namespace
