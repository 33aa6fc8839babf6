// SPDX-License-Identifier: GPL-2.0
//
// Processors that meet: at one tick a detection timer and a transmit timer are due, and while
// they run, a datagram arrives, the agent reconfigures, stops, deletes or sweeps. Every pair in
// every order, one at each lock point of the other: whatever happens has to be what happens when
// one follows the other.
#include <set>
#include <sstream>

#include "engine_fixture.h"

namespace
{

using namespace sim;

constexpr std::uint32_t session_disc = 5;
constexpr std::uint32_t packet_disc = 7;
constexpr std::uint64_t interval = 299; // ticks, of transmission and detection both

struct scene {
    explicit scene(std::uint64_t seed, bool path_is_ready = true);
    world w;
    agent &a = w.open_agent(w.initial());
    agent &listener = w.open_agent(w.initial(), {.groups = notification_group});
    agent *agents[2] = {&w.open_agent(w.initial()), &w.open_agent(w.initial())}; // of processors
    std::size_t memory = 0;
    // What had been sent when something returned after which nothing of it may come.
    std::optional<std::size_t> last_failures;
    std::optional<std::size_t> last_frames;
};

rx detecting(std::uint8_t flags)
{
    return {.flags = flags, .multiplier = 1, .period = interval * 1000, .latch = {packet_disc}};
}

scene::scene(std::uint64_t seed, bool path_is_ready) : w({.seed = seed})
{
    if (path_is_ready) {
        EXPECT_EQ(path_ready(a), 0);
    }
    memory = w.memory_in_use();
    EXPECT_EQ(set(a, packet_disc, {}), 0);
    EXPECT_EQ(set_session(a, session_disc, detecting(KELM_RX_TIMER_ACTIVE)), 0);
    w.pass(interval); // both timers are due
}

enum class operation {
    timers,
    datagram,
    set,
    stop,
    remove,
    tx_set,
    tx_out_of_band,
    tx_remove,
    sweep
};
using operations = std::vector<operation>;

void perform(scene &s, operation what, agent &a)
{
    int result = 0;
    switch (what) {
    case operation::timers:
        return s.w.run_timers();
    case operation::datagram:
        EXPECT_TRUE(receive(s.w, session_disc));
        break;
    case operation::set:
        result = set_session(a, session_disc, detecting(KELM_RX_TIMER_ACTIVE));
        break;
    case operation::stop:
        result = set_session(a, session_disc, detecting(0));
        break;
    case operation::remove:
        result = delete_session(a, session_disc);
        break;
    case operation::tx_set:
        EXPECT_EQ(set(a, packet_disc, {}), 0);
        return s.last_frames.reset();
    case operation::tx_out_of_band:
        EXPECT_EQ(set(a, packet_disc, {}, tx{.flags = KELM_TX_SEND_OOB}), 0);
        return s.last_frames.reset();
    case operation::tx_remove:
        EXPECT_NE(delete_packet(a, packet_disc), unanswered);
        s.last_frames = s.w.frames().size();
        return;
    case operation::sweep:
        EXPECT_EQ(mark_or_sweep(a, KELM_SYNC_SWEEP), 0);
        s.last_frames = s.w.frames().size();
    }
    if (result == 0)
        s.last_failures = s.listener.queued();
    else // the packet to link was gone, or the session
        EXPECT_TRUE(result == -ENXIO || result == -ENOENT) << result;
}

// What has come of it, in words.
std::string outcome(scene &s)
{
    s.w.run_timers(); // what is still due
    std::ostringstream said;
    const std::size_t failures = s.listener.read_messages().size();
    said << failures << " failures";
    if (s.last_failures && failures > *s.last_failures)
        said << ", one when it was too late";
    const dump_result dump = sync_dump(s.a);
    for (const auto &each : bodies<kelm_msg_rx_sync>(dump.messages, KELM_MSG_RX_SYNC))
        said << ", session with timer " << each.timer_active << " and timeouts "
             << rx_stats(s.a, session_disc)->num_timeout;
    const bool is_sent = !bodies<kelm_msg_tx_sync>(dump.messages, KELM_MSG_TX_SYNC).empty();
    s.w.advance(3); // a packet out of band, and the one after it
    if (is_sent)
        said << ", packet sent " << tx_stats(s.a, packet_disc)->num_sent << " times in band, "
             << s.w.frames().size() << " in all";
    else if (s.last_frames && s.w.frames().size() > *s.last_frames)
        said << ", packet sent when it was too late";

    // From now on in order: the packet in its rhythm, the session one failure if it is active.
    const std::size_t first = s.w.frames().size();
    s.w.advance(1000);
    const std::vector<frame> &frames = s.w.frames();
    EXPECT_EQ(frames.size() - first >= 3, is_sent);
    for (std::size_t i = first + 1; i < frames.size(); ++i)
        EXPECT_EQ(frames[i].tick - frames[i - 1].tick, interval);
    said << ", later " << s.listener.read_messages().size() << " failures";
    if (is_sent)
        said << (tx_stats(s.a, packet_disc)->num_latches != 0 ? ", latched" : ", not latched");

    delete_session(s.a, session_disc);
    delete_packet(s.a, packet_disc);
    s.w.advance(interval);
    EXPECT_EQ(s.w.timers(), 0U);
    EXPECT_EQ(s.w.memory_in_use(), s.memory);
    return said.str();
}

// The outcomes of two operations that follow each other; a sweep is two removals.
std::set<std::string> outcomes_in_sequence(operation first, operation second)
{
    const auto steps = [](operation what) {
        return what == operation::sweep ? operations{operation::remove, operation::tx_remove}
                                        : operations{what};
    };
    const operations ours = steps(first), theirs = steps(second);
    std::vector<bool> turns(ours.size() + theirs.size());
    std::fill_n(turns.rbegin(), theirs.size(), true);
    std::set<std::string> result;
    do {
        for (const std::uint64_t seed : {1U, 2U, 3U, 4U}) { // which decides which timer is first
            scene s(seed);
            auto our_step = ours.begin(), their_step = theirs.begin();
            for (const bool their_turn : turns)
                perform(s, their_turn ? *their_step++ : *our_step++, s.a);
            result.insert(outcome(s));
        }
    } while (std::next_permutation(turns.begin(), turns.end()));
    return result;
}

TEST(interleavings, every_pair_does_what_it_does_in_some_sequence)
{
    using enum operation;
    const operations all = {timers, datagram,       set,       stop, remove,
                            tx_set, tx_out_of_band, tx_remove, sweep};
    for (const operation first : all) {
        for (const operation second : all) {
            const std::set<std::string> allowed = outcomes_in_sequence(first, second);
            std::uint64_t k = 1;
            for (;; ++k) {
                SCOPED_TRACE(testing::Message()
                             << "operation " << static_cast<int>(first) << ", at lock point " << k
                             << " operation " << static_cast<int>(second));
                scene s(k);
                bool over = false;
                s.w.at_lock_point(k, [&] {
                    if (!over)
                        perform(s, second, *s.agents[1]);
                });
                perform(s, first, *s.agents[0]);
                over = true;
                if (s.w.actions_left() != 0)
                    break;
                const std::string found = outcome(s);
                ASSERT_TRUE(allowed.contains(found))
                    << found << "; allowed is " << testing::PrintToString(allowed);
                ASSERT_FALSE(testing::Test::HasFailure());
            }
            EXPECT_GT(k, 5U);
        }
    }
}

// A namespace goes while its timers are due, datagrams of others arrive, of which the first may
// make the path ready, and its sessions link and are linked across vrfs.
TEST(interleavings, a_namespace_that_goes_takes_everything_along)
{
    for (std::uint64_t seed = 1; seed <= 500; ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        scene s(seed, seed % 2 == 0);
        net &red = s.w.create_namespace("red");
        agent &there = s.w.open_agent(red);
        agent &hears = s.w.open_agent(red, {.groups = notification_group});
        ASSERT_EQ(set_packet(there, 8), 0);
        ASSERT_EQ(
            set_session(there, 8, rx{.multiplier = 1, .period = 25'000, .latch = {8, packet_disc}}),
            0);
        ASSERT_EQ(set_session(s.a, 9, rx{.flags = 0, .latch = {8}}), 0);
        there.close();
        hears.close();
        s.w.abandon(red);
        s.w.pass(25); // the cleanup thread wants to run, all timers are due
        s.w.race({[&] { s.w.run_timers(); }, [&] { s.w.run_timers(); },
                  [&] { EXPECT_TRUE(receive(s.w, session_disc)); },
                  [&] { EXPECT_EQ(delete_session(*s.agents[0], 9), 0); }});
        s.w.advance(50);
        EXPECT_FALSE(world::alive(red));
        s.w.take_frames();
        s.listener.read_messages();
        s.w.advance(2 * interval);
        for (const frame &each : s.w.frames())
            EXPECT_EQ(each.netns, &s.w.initial());
        EXPECT_EQ(delete_session(s.a, session_disc), 0);
        EXPECT_EQ(delete_packet(s.a, packet_disc), 0);
        s.w.advance(1000); // the longest period, by which the other namespace's packet is let go
        EXPECT_EQ(s.w.timers(), 0U);
        EXPECT_EQ(s.w.memory_in_use(), s.memory);
        if (testing::Test::HasFailure())
            return;
    }
}

} // namespace
