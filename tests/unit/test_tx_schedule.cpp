// SPDX-License-Identifier: GPL-2.0
//
// When packets go out. A tick is a millisecond; half of one is always taken off the period, which
// after rounding costs one tick. And when they begin to: as soon as the path is ready, by the agent
// or by the first datagram, once, for all vrfs, while vrfs come and go.
#include <map>
#include <set>

#include "engine_fixture.h"
#include "platform/sim/net.h"

namespace
{

using namespace sim;

using tick_list = std::vector<std::uint64_t>;

struct tx_schedule : engine_test {
    int set_period(kelm_microsecs period, std::uint16_t jitter_type = BFD_TX_JITTER_NONE)
    {
        return set_packet(a, own_disc, tx{.period = period, .jitter_type = jitter_type});
    }

    int set_out_of_band() { return set_packet(a, own_disc, tx{.flags = KELM_TX_SEND_OOB}); }
};

TEST_F(tx_schedule, interval_is_period_less_jitter_each_rounded_up)
{
    constexpr struct {
        std::uint16_t jitter_type;
        kelm_microsecs period;
        std::uint32_t random;
        std::uint64_t interval; // ticks
    } cases[] = {
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
        {BFD_TX_JITTER_75_90, 1'000'000, 500, 899},
        {BFD_TX_JITTER_75_90, 1'000'000, 501, 898},
        {BFD_TX_JITTER_75_90, 1'000'000, 142'856, 756},
        {BFD_TX_JITTER_75_90, 1'000'000, 142'857, 899}, // modulo a seventh
        {3, 1'000'000, 99'999, 999},                    // unknown types have no jitter
        {0xffff, 1'000'000, 99'999, 999},
        {BFD_TX_JITTER_NONE, 0xffffffff, 0, 4'294'967}, // 4294.967295 s less 1 tick
        {BFD_TX_JITTER_NONE, 1, 9, 1},
        {BFD_TX_JITTER_75, 3, 9, 1}, // too short to be divided
        {BFD_TX_JITTER_75_90, 6, 9, 1},
    };
    ASSERT_EQ(path_ready(a), 0);
    for (const auto &[jitter_type, period, random, interval] : cases) {
        SCOPED_TRACE(testing::Message()
                     << "jitter " << jitter_type << " period " << period << " random " << random);
        w.next_random(random); // for the first packet, and the one after it
        w.next_random(random);
        ASSERT_EQ(set_period(period, jitter_type), 0);
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(sent_during(interval), tick_list{interval});
        ASSERT_EQ(delete_packet(a, own_disc), 0);
        w.pass(period / 1000 + 1); // for the timer to let go of it
        w.run_timers();
        ASSERT_EQ(w.timers(), 0U);
    }
}

TEST_F(tx_schedule, out_of_band_packet_goes_at_once_and_leaves_the_rhythm_alone)
{
    ASSERT_EQ(path_ready(a), 0);
    ASSERT_EQ(set(a, own_disc, {}), 0);
    EXPECT_EQ(sent_during(400), tick_list{299});
    const auto before = *tx_stats(a, own_disc);
    ASSERT_EQ(set_out_of_band(), 0);
    EXPECT_EQ(sent_during(100), tick_list{1});
    const auto after = *tx_stats(a, own_disc);
    EXPECT_EQ(after.num_sent, before.num_sent);
    EXPECT_EQ(after.last_tx_time.sec, before.last_tx_time.sec);
    EXPECT_EQ(after.last_tx_time.nsec, before.last_tx_time.nsec);
    // 299 ticks after the last one in band, 98 from now, as if nothing had been sent.
    EXPECT_EQ(sent_during(400), (tick_list{98, 397}));
    EXPECT_EQ(tx_stats(a, own_disc)->max_lateness, 299'000U);
}

TEST_F(tx_schedule, rhythm_resumes_at_the_next_tick_if_its_time_has_passed)
{
    ASSERT_EQ(path_ready(a), 0);
    // A new packet has no rhythm yet.
    ASSERT_EQ(set_out_of_band(), 0);
    EXPECT_EQ(sent_during(400), (tick_list{1, 2, 301}));
    // The out-of-band transmission is late, and the rhythm's own tick goes by.
    ASSERT_EQ(set_out_of_band(), 0);
    w.pass(250); // due was 99 ticks ago when the packet went out
    w.take_frames();
    w.run_timers();
    EXPECT_EQ(w.frames().size(), 1U);
    EXPECT_EQ(sent_during(310), (tick_list{1, 300}));
    // It is due at the very tick at which the out-of-band packet goes out.
    w.advance(288); // 299 - 10 - 1
    ASSERT_EQ(set_debug_level(a, 3), 0);
    ASSERT_EQ(set_out_of_band(), 0);
    w.clear_log();
    EXPECT_EQ(sent_during(10), (tick_list{1, 2}));
    const std::string then = std::to_string(w.tick() - 9);
    EXPECT_EQ(w.logged("to " + then + " now " + then + " jitter"), 1U);
}

TEST_F(tx_schedule, reconfiguration_counts_from_the_last_transmission)
{
    const struct {
        kelm_microsecs period;
        std::uint64_t ticks; // that pass then
        tick_list sent;
    } cases[] = {
        {300'000, 399, {299}},    // 100 ticks ago
        {200'000, 50, {}},        // 150
        {300'000, 100, {}},       // 250
        {400'000, 100, {}},       // 350
        {300'000, 300, {1, 300}}, // passed: the next tick
        {300'000, 99, {}},
    };
    ASSERT_EQ(path_ready(a), 0);
    for (const auto &[period, ticks, sent] : cases) {
        ASSERT_EQ(set_period(period), 0);
        EXPECT_EQ(sent_during(ticks), sent);
    }
    // Due at this very tick stays so, and fires at the next one.
    ASSERT_EQ(set_debug_level(a, 3), 0);
    ASSERT_EQ(set_period(100'000), 0);
    const std::string now = std::to_string(w.tick());
    EXPECT_EQ(w.logged("to " + now + " now " + now + " jitter 1 packet->period 100000"), 1U);
    EXPECT_EQ(sent_during(105), (tick_list{1, 100}));
}

TEST_F(tx_schedule, path_ready_sends_all_at_once_and_then_each_at_a_random_time_of_its_period)
{
    const std::map<std::uint32_t, std::uint64_t> ticks_by_random = {
        {0, 1},         {1, 1},       {100'000, 100},   {100'001, 101},
        {299'999, 300}, {300'000, 1}, {0xffffffff, 168}};
    std::uint32_t disc = 0;
    tick_list expected;
    for (const auto &[random, ticks] : ticks_by_random) {
        ASSERT_EQ(set_packet(a, ++disc), 0); // in the order in which they are started
        w.next_random(7);                    // the jitter, which does not count
        w.next_random(random);
        expected.push_back(ticks);
        if (ticks == 1)
            expected.push_back(1 + interval_ticks); // from then on they are periodic
    }
    EXPECT_EQ(w.timers(), 0U);
    ASSERT_EQ(path_ready(a), 0);
    EXPECT_EQ(w.frames().size(), ticks_by_random.size());
    std::ranges::sort(expected);
    EXPECT_EQ(sent_during(300), expected);
}

TEST_F(tx_schedule, packet_still_out_of_band_when_the_path_gets_ready_is_not_delayed)
{
    ASSERT_EQ(set(a, own_disc, {}, tx{.flags = KELM_TX_SEND_OOB}), 0);
    w.advance(500);
    ASSERT_TRUE(w.frames().empty());
    ASSERT_EQ(path_ready(a), 0);
    EXPECT_EQ(w.frames().size(), 1U);
    EXPECT_EQ(sent_during(400), (tick_list{1, 2, 301})); // again out of band, then in band
    EXPECT_EQ(tx_stats(a, own_disc)->num_sent, 2U);
}

// The namespaces that packets went out in, by name and discriminator.
std::multiset<std::string> sent(world &w)
{
    std::multiset<std::string> result;
    for (const frame &each : w.take_frames())
        result.insert(each.netns->name + " " +
                      std::to_string(ntohl(ctrl_in(each.data).my_discriminator)));
    return result;
}

TEST(path_ready, starts_every_packet_of_every_vrf_once)
{
    world w({.namespaces = {"red", "blue"}});
    std::multiset<std::string> all;
    for (const char *name : {"initial", "red", "blue"}) {
        agent &a = w.open_agent(w.find(name));
        for (const std::uint32_t disc : {1U, 33U, 0xffffffffU}) {
            ASSERT_EQ(set_packet(a, disc), 0);
            all.insert(std::string(name) + " " + std::to_string(disc));
        }
    }
    w.advance(1000);
    EXPECT_TRUE(w.frames().empty());
    agent &a = w.open_agent(w.find("red"), {.privileged = false});
    ASSERT_EQ(set_debug_level(w.open_agent(w.initial()), 2), 0);
    EXPECT_EQ(path_ready(a, 1), -ENODATA);
    EXPECT_TRUE(w.frames().empty());
    EXPECT_EQ(path_ready(a), 0);
    EXPECT_EQ(sent(w), all);
    // The first datagram only says so.
    EXPECT_TRUE(receive(w, 1));
    EXPECT_TRUE(receive(w, 1));
    EXPECT_TRUE(w.frames().empty());
    EXPECT_EQ(w.logged("kelm Rx: Tx path ready from kernel"), 1U);
    EXPECT_EQ(w.logged("kelm Tx: Setting kelm_tx_path_ready"), 2U);
}

// At each lock point of the walk: a namespace comes and gets a packet, a packet is set and one is
// deleted in a vrf, a vrf is swept, the path is declared ready once more.
TEST(path_ready, whatever_is_set_during_the_walk_is_sent)
{
    std::uint64_t k = 1;
    for (;; ++k) {
        SCOPED_TRACE(testing::Message() << "lock point " << k);
        world w({.namespaces = {"red", "blue"}, .seed = k});
        agent &a = w.open_agent(w.initial());
        agent &red = w.open_agent(w.find("red"));
        agent &blue = w.open_agent(w.find("blue"));
        agent &other = w.open_agent(w.initial()); // an agent is one thread
        for (agent *each : {&a, &red, &blue}) {
            ASSERT_EQ(set_packet(*each, 1), 0);
            ASSERT_EQ(set_packet(*each, 2), 0);
        }
        bool walking = true;
        w.at_lock_point(k, [&] {
            if (!walking)
                return;
            agent &fresh = w.open_agent(w.create_namespace("green"));
            EXPECT_EQ(set_packet(fresh, 1), 0);
            EXPECT_EQ(set_packet(other, 3), 0);
            EXPECT_EQ(delete_packet(red, 1), 0);
            EXPECT_EQ(path_ready(blue), 0);
            EXPECT_EQ(set_packet(blue, 1), 0);
        });
        if (k % 2 == 0)
            ASSERT_EQ(path_ready(a), 0);
        else
            ASSERT_TRUE(receive(w, 9));
        walking = false;
        if (w.actions_left() != 0)
            break;
        // By the end of the first period everything that exists has been sent, and only that.
        w.take_frames();
        w.advance(600);
        const std::multiset<std::string> met = sent(w);
        for (const char *each :
             {"initial 1", "initial 2", "initial 3", "red 2", "blue 1", "blue 2", "green 1"}) {
            EXPECT_GE(met.count(each), 1U) << each;
            EXPECT_LE(met.count(each), 3U) << each;
        }
        EXPECT_EQ(met.count("red 1"), 0U);
        EXPECT_EQ(w.timers(), 7U);
    }
    EXPECT_GT(k, 30U);
}

} // namespace
