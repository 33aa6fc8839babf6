// SPDX-License-Identifier: GPL-2.0
//
// When packets go out. A tick is a millisecond; half of one is always taken off the period, which
// after rounding costs one tick.
#include "wire_fixture.h"

#include <cmath>
#include <map>

namespace
{

using namespace sim;

constexpr std::uint32_t SESSION = 5;

class tx_schedule : public testing::Test
{
  protected:
    using tick_list = std::vector<std::uint64_t>;

    // The ticks, counted from now, at which packets go out while time goes by.
    tick_list sent_during(std::uint64_t ticks)
    {
        w.take_frames();
        const std::uint64_t start = w.tick();
        w.advance(ticks);
        tick_list result;
        for (const frame &each : w.frames())
            result.push_back(each.tick - start);
        return result;
    }

    world w;
    agent &a = w.open_agent(w.initial());
};

// What is taken off at random, microseconds: the formula with r as the random number.
std::uint32_t reduction(std::uint16_t jitter_type, kelm_microsecs period, std::uint32_t r)
{
    if (jitter_type == BFD_TX_JITTER_75)
        return r % (period / 4);
    if (jitter_type == BFD_TX_JITTER_75_90)
        return r % (period / 7) + period / 10;
    return 0;
}

std::uint64_t to_ticks(std::uint64_t usecs)
{
    return (usecs + 999) / 1000;
}

struct extremes {
    std::uint16_t jitter_type;
    kelm_microsecs period;
    std::uint32_t random;
    std::uint64_t interval; // ticks
};

TEST_F(tx_schedule, interval_is_period_less_jitter_each_rounded_up)
{
    constexpr extremes cases[] = {
        {BFD_TX_JITTER_NONE, 300'000, 12345, 299},
        {BFD_TX_JITTER_NONE, 1'000'000, 0, 999},
        {BFD_TX_JITTER_NONE, 1500, 0, 1},
        {BFD_TX_JITTER_NONE, 2001, 0, 2},
        {BFD_TX_JITTER_75, 1'000'000, 0, 999},
        {BFD_TX_JITTER_75, 1'000'000, 500, 999},
        {BFD_TX_JITTER_75, 1'000'000, 501, 998},
        {BFD_TX_JITTER_75, 1'000'000, 249'999, 749},
        {BFD_TX_JITTER_75, 1'000'000, 250'000, 999}, // modulo a quarter
        {BFD_TX_JITTER_75_90, 1'000'000, 0, 899},
        {BFD_TX_JITTER_75_90, 1'000'000, 142'856, 756},
        {BFD_TX_JITTER_75_90, 1'000'000, 142'857, 899}, // modulo a seventh
        {3, 1'000'000, 99'999, 999},                    // unknown types have no jitter
        {0xffff, 1'000'000, 99'999, 999},
        {BFD_TX_JITTER_NONE, 0xffffffff, 0, 4'294'967}, // 4294.967295 s less 1 tick
    };
    ASSERT_EQ(path_ready(a), 0);
    for (const extremes &each : cases) {
        SCOPED_TRACE(testing::Message() << "jitter " << each.jitter_type << " period "
                                        << each.period << " random " << each.random);
        // The first packet, then one interval after it.
        w.next_random(each.random);
        w.next_random(each.random);
        ASSERT_EQ(
            set_packet(a, SESSION, tx{.period = each.period, .jitter_type = each.jitter_type}), 0);
        const tick_list sent = sent_during(2 * each.interval);
        ASSERT_EQ(sent.size(), 2U);
        EXPECT_EQ(sent[0], each.interval);
        EXPECT_EQ(sent[1] - sent[0], each.interval);
        ASSERT_EQ(delete_packet(a, SESSION), 0);
        w.advance(to_ticks(each.period)); // for the timer to let go of it
        ASSERT_EQ(w.timers(), 0U);
    }
}

// Many draws: every interval within the bounds, all of them met, and as often as a uniform
// number makes them.
TEST(tx_jitter, is_uniform_within_its_bounds)
{
    constexpr kelm_microsecs PERIOD = 100'000;
    for (const std::uint16_t type : {BFD_TX_JITTER_75, BFD_TX_JITTER_75_90}) {
        const std::uint32_t range = type == BFD_TX_JITTER_75 ? PERIOD / 4 : PERIOD / 7;
        std::map<std::uint64_t, double> expected; // interval to probability
        for (std::uint32_t r = 0; r < range; ++r)
            expected[to_ticks(PERIOD) - to_ticks(reduction(type, PERIOD, r) + 500)] += 1.0 / range;
        for (std::uint64_t seed = 1; seed <= 4; ++seed) {
            world w({.seed = seed});
            agent &a = w.open_agent(w.initial());
            ASSERT_EQ(path_ready(a), 0);
            ASSERT_EQ(set_packet(a, SESSION, tx{.period = PERIOD, .jitter_type = type}), 0);
            w.advance(4000 * PERIOD / 1000);
            const std::vector<frame> &frames = w.frames();
            std::map<std::uint64_t, double> met;
            for (std::size_t i = 1; i < frames.size(); ++i)
                met[frames[i].tick - frames[i - 1].tick] += 1.0;
            ASSERT_GE(frames.size(), 4000U);
            // Chi-square; 5 standard deviations above its mean.
            double chi_square = 0;
            for (const auto &[interval, probability] : expected) {
                const double mean = probability * static_cast<double>(frames.size() - 1);
                chi_square += (met[interval] - mean) * (met[interval] - mean) / mean;
            }
            EXPECT_EQ(met.size(), expected.size()) << "type " << type << " seed " << seed;
            const auto degrees = static_cast<double>(expected.size() - 1);
            EXPECT_LT(chi_square, degrees + 5 * std::sqrt(2 * degrees)) << "seed " << seed;
        }
    }
}

TEST_F(tx_schedule, periods_too_short_to_divide_are_sent_every_tick)
{
    ASSERT_EQ(path_ready(a), 0);
    for (const std::uint16_t type : {BFD_TX_JITTER_NONE, BFD_TX_JITTER_75, BFD_TX_JITTER_75_90}) {
        for (kelm_microsecs period = 1; period <= 8; ++period) {
            ASSERT_EQ(set_packet(a, SESSION, tx{.period = period, .jitter_type = type}), 0);
            EXPECT_EQ(sent_during(5), (tick_list{1, 2, 3, 4, 5}));
        }
    }
}

TEST_F(tx_schedule, out_of_band_packet_goes_at_once_and_leaves_the_rhythm_alone)
{
    outgoing poll_answer;
    poll_answer.payload = control_packet{.flags = BFD_FLAG_FINAL}.encode();
    ASSERT_EQ(path_ready(a), 0);
    ASSERT_EQ(set(a, SESSION, {}), 0);
    EXPECT_EQ(sent_during(400), tick_list{299});
    const auto before = *tx_stats(a, SESSION);

    w.take_frames();
    ASSERT_EQ(set(a, SESSION, poll_answer, tx{.flags = KELM_TX_SEND_OOB}), 0);
    w.advance(100);
    ASSERT_EQ(w.frames().size(), 1U);
    EXPECT_EQ(w.tick() - w.frames()[0].tick, 99U);
    EXPECT_TRUE(ctrl_in(w.frames()[0].data).final);
    const auto after = *tx_stats(a, SESSION);
    EXPECT_EQ(after.num_sent, before.num_sent);
    EXPECT_EQ(after.last_tx_time.sec, before.last_tx_time.sec);
    EXPECT_EQ(after.last_tx_time.nsec, before.last_tx_time.nsec);
    EXPECT_EQ(after.max_lateness, before.max_lateness);

    // 299 ticks after the last one in band, 98 from now, as if nothing had been sent; without F.
    ASSERT_EQ(set_debug_level(a, 3), 0);
    EXPECT_EQ(sent_during(400), (tick_list{98, 397}));
    EXPECT_EQ(w.logged("Next in-band packet after last OOB packet with final bit 1, clear final "
                       "bit"),
              1U);
    for (const frame &each : w.frames())
        EXPECT_FALSE(ctrl_in(each.data).final);
    EXPECT_EQ(tx_stats(a, SESSION)->max_lateness, 299'000U);
}

TEST_F(tx_schedule, rhythm_resumes_at_the_next_tick_if_its_time_has_passed)
{
    ASSERT_EQ(path_ready(a), 0);
    // A new packet has no rhythm yet.
    ASSERT_EQ(set(a, SESSION, {}, tx{.flags = KELM_TX_SEND_OOB}), 0);
    EXPECT_EQ(sent_during(400), (tick_list{1, 2, 301}));
    // The out-of-band transmission is late, and the rhythm's own tick goes by.
    ASSERT_EQ(set(a, SESSION, {}, tx{.flags = KELM_TX_SEND_OOB}), 0);
    w.pass(250); // due was 99 ticks ago when the packet went out
    w.take_frames();
    w.run_timers();
    EXPECT_EQ(w.frames().size(), 1U);
    EXPECT_EQ(sent_during(310), (tick_list{1, 300}));
    // It is due at the very tick at which the out-of-band packet goes out.
    w.advance(288); // 299 - 10 - 1
    ASSERT_EQ(set_debug_level(a, 3), 0);
    ASSERT_EQ(set(a, SESSION, {}, tx{.flags = KELM_TX_SEND_OOB}), 0);
    w.clear_log();
    EXPECT_EQ(sent_during(10), (tick_list{1, 2}));
    const std::string due_now =
        "to " + std::to_string(w.tick() - 9) + " now " + std::to_string(w.tick() - 9) + " jitter";
    EXPECT_EQ(w.logged(due_now), 1U) << due_now;
}

TEST_F(tx_schedule, reconfiguration_counts_from_the_last_transmission)
{
    ASSERT_EQ(path_ready(a), 0);
    const auto set_period = [this](kelm_microsecs period) {
        ASSERT_EQ(set_packet(a, SESSION, tx{.period = period}), 0);
    };
    set_period(300'000);
    EXPECT_EQ(sent_during(399), tick_list{299}); // 100 ticks ago
    set_period(200'000);
    EXPECT_EQ(sent_during(50), tick_list{}); // 150
    set_period(300'000);
    EXPECT_EQ(sent_during(100), tick_list{}); // 250
    set_period(400'000);
    EXPECT_EQ(sent_during(100), tick_list{}); // 350
    set_period(300'000);
    EXPECT_EQ(sent_during(300), (tick_list{1, 300})); // passed: the next tick
    // Due at this very tick stays so, and fires at the next one.
    EXPECT_EQ(sent_during(99), tick_list{});
    ASSERT_EQ(set_debug_level(a, 3), 0);
    set_period(100'000);
    const std::string now = std::to_string(w.tick());
    EXPECT_EQ(w.logged("to " + now + " now " + now + " jitter 1 packet->period 100000"), 1U);
    EXPECT_EQ(sent_during(105), (tick_list{1, 100}));
}

TEST_F(tx_schedule, late_timer_shifts_the_rhythm)
{
    ASSERT_EQ(path_ready(a), 0);
    ASSERT_EQ(set(a, SESSION, {}), 0);
    w.pass(1000);
    w.run_timers();
    ASSERT_EQ(w.frames().size(), 1U);
    EXPECT_EQ(sent_during(299), tick_list{299});
}

TEST_F(tx_schedule, path_ready_spreads_the_packets_over_their_period)
{
    constexpr std::uint32_t PACKETS = 300;
    for (std::uint32_t disc = 1; disc <= PACKETS; ++disc)
        ASSERT_EQ(set_packet(a, disc, tx{.period = 1'000'000, .jitter_type = BFD_TX_JITTER_75}), 0);
    EXPECT_EQ(w.timers(), 0U);
    ASSERT_EQ(path_ready(a), 0);
    EXPECT_EQ(w.take_frames().size(), PACKETS);
    const std::uint64_t ready = w.tick();
    w.advance(1000);
    std::map<std::uint32_t, std::vector<std::uint64_t>> sent;
    for (const frame &each : w.frames())
        sent[ctrl_in(each.data).my_discriminator].push_back(each.tick - ready);
    ASSERT_EQ(sent.size(), PACKETS); // each within its period, without jitter
    std::map<std::uint64_t, int> tenths;
    for (const auto &[disc, at] : sent) {
        ++tenths[(at[0] - 1) / 100];
        if (at.size() > 1) { // from then on periodic, jitter and all
            EXPECT_GE(at[1] - at[0], 749U);
            EXPECT_LE(at[1] - at[0], 999U);
        }
    }
    EXPECT_EQ(tenths.size(), 10U);
    for (const auto &[tenth, count] : tenths)
        EXPECT_NEAR(count, 30, 25) << tenth; // 5 standard deviations
}

TEST_F(tx_schedule, random_first_delay_is_a_remainder_of_the_period)
{
    struct first_delay {
        std::uint32_t random;
        std::uint64_t ticks;
    };
    constexpr first_delay cases[] = {{0, 1},         {1, 1},       {100'000, 100},   {100'001, 101},
                                     {299'999, 300}, {300'000, 1}, {0xffffffff, 168}};
    for (std::uint32_t i = 0; i < std::size(cases); ++i)
        ASSERT_EQ(set_packet(a, i + 1), 0); // in the order in which they are started
    for (const first_delay &each : cases) {
        w.next_random(7); // the jitter, which does not count
        w.next_random(each.random);
    }
    ASSERT_EQ(path_ready(a), 0);
    const std::uint64_t ready = w.tick();
    w.take_frames();
    w.advance(300);
    std::map<std::uint32_t, std::uint64_t> first;
    for (const frame &each : w.frames())
        first.emplace(ntohl(ctrl_in(each.data).my_discriminator), each.tick - ready);
    for (std::uint32_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(first[i + 1], cases[i].ticks) << cases[i].random;
}

TEST_F(tx_schedule, packet_still_out_of_band_when_the_path_gets_ready_is_not_delayed)
{
    ASSERT_EQ(set(a, SESSION, {}, tx{.flags = KELM_TX_SEND_OOB}), 0);
    w.advance(500);
    ASSERT_TRUE(w.frames().empty());
    ASSERT_EQ(path_ready(a), 0);
    EXPECT_EQ(w.frames().size(), 1U);
    EXPECT_EQ(sent_during(400), (tick_list{1, 2, 301})); // again out of band, then in band
    EXPECT_EQ(tx_stats(a, SESSION)->num_sent, 2U);
}

} // namespace
