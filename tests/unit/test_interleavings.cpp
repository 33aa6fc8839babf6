// SPDX-License-Identifier: GPL-2.0
//
// Processors that meet: at one tick a detection timer and a transmit timer are due, and while
// they run, a datagram arrives, the agent reconfigures, stops, deletes or sweeps. Every pair in
// every order, one at each lock point of the other; three at once by seeds.
#include "platform/sim/random.h"
#include "wire_fixture.h"

namespace
{

using namespace sim;

constexpr std::uint32_t SESSION = 5;
constexpr std::uint32_t PACKET = 7;
constexpr std::uint64_t INTERVAL = 299; // ticks, of transmission and detection both

struct scene {
    explicit scene(std::uint64_t seed);
    world w;
    agent &a = w.open_agent(w.initial());
    agent &listener = w.open_agent(w.initial(), {.groups = NOTIFICATION});
    agent *agents[3]; // one for each processor
    std::size_t memory = 0;
    std::uint64_t out_of_band = 0; // requests
    bool half_set = false; // the packet to link was gone: the session's timer is as it was before
    // What had been sent when a removal returned.
    std::optional<std::size_t> failures_at_removal;
    std::optional<std::size_t> frames_at_removal;
};

rx detecting(std::uint8_t flags = KELM_RX_TIMER_ACTIVE)
{
    return {.flags = flags, .multiplier = 1, .period = INTERVAL * 1000, .latch = {PACKET}};
}

scene::scene(std::uint64_t seed) : w({.seed = seed})
{
    for (agent *&each : agents)
        each = &w.open_agent(w.initial());
    EXPECT_EQ(path_ready(a), 0);
    memory = w.memory_in_use();
    EXPECT_EQ(set(a, PACKET, {}), 0);
    EXPECT_EQ(set_session(a, SESSION, detecting()), 0);
    w.pass(INTERVAL); // both timers are due
}

// What a processor does. Removals note what has been sent when they return.
enum operation : unsigned {
    TIMERS = 1 << 0,
    DATAGRAM = 1 << 1,
    SET = 1 << 2,
    STOP = 1 << 3,
    REMOVE = 1 << 4,
    TX_SET = 1 << 5,
    TX_OUT_OF_BAND = 1 << 6,
    TX_REMOVE = 1 << 7,
    SWEEP = 1 << 8,
    LAST = SWEEP
};

void perform(scene &s, operation what, agent &a)
{
    switch (what) {
    case TIMERS:
        s.w.run_timers();
        break;
    case DATAGRAM:
        EXPECT_TRUE(receive(s.w, SESSION));
        break;
    case SET:
    case STOP: {
        const std::uint8_t flags = what == SET ? KELM_RX_TIMER_ACTIVE : 0;
        const int result = set_session(a, SESSION, detecting(flags));
        EXPECT_TRUE(result == 0 || result == -ENXIO) << result;
        s.half_set = s.half_set || result == -ENXIO;
        break;
    }
    case REMOVE:
        EXPECT_NE(delete_session(a, SESSION), UNANSWERED);
        s.failures_at_removal = s.listener.queued();
        break;
    case TX_SET:
        EXPECT_EQ(set(a, PACKET, {}), 0);
        break;
    case TX_OUT_OF_BAND:
        EXPECT_EQ(set(a, PACKET, {}, tx{.flags = KELM_TX_SEND_OOB}), 0);
        ++s.out_of_band;
        break;
    case TX_REMOVE:
        EXPECT_NE(delete_packet(a, PACKET), UNANSWERED);
        s.frames_at_removal = s.w.frames().size();
        break;
    case SWEEP:
        EXPECT_EQ(mark_or_sweep(a, KELM_SYNC_SWEEP), 0);
        s.failures_at_removal = s.listener.queued();
        s.frames_at_removal = s.w.frames().size();
        break;
    }
}

// What holds afterwards, whatever the order was. `done` is what has been performed.
struct checker {
    scene &s;
    unsigned done;
    std::size_t failures = 0; // at this tick

    [[nodiscard]] bool did(unsigned any_of) const { return (done & any_of) != 0; }

    void check()
    {
        s.w.run_timers(); // what is still due
        if (s.failures_at_removal && !did(SET | STOP)) {
            EXPECT_EQ(s.listener.queued(), *s.failures_at_removal);
        }
        failures = s.listener.read_messages().size();
        EXPECT_LE(failures, 1U);
        if (!did(DATAGRAM | SET | STOP | REMOVE | SWEEP)) {
            EXPECT_EQ(failures, 1U);
        }
        const dump_result dump = sync_dump(s.a);
        const auto sessions = bodies<kelm_msg_rx_sync>(dump.messages, KELM_MSG_RX_SYNC);
        const auto packets = bodies<kelm_msg_tx_sync>(dump.messages, KELM_MSG_TX_SYNC);
        const bool active = !sessions.empty() && sessions[0].timer_active != 0;
        check_session(!sessions.empty(), active);
        check_packet(!packets.empty());
        check_transmission(!packets.empty(), active);
        check_end();
    }

    void check_session(bool exists, bool active) const
    {
        if (!did(REMOVE | SWEEP)) {
            ASSERT_TRUE(exists);
            EXPECT_EQ(rx_stats(s.a, SESSION)->num_timeout, failures);
        }
        if (!did(SET | STOP)) {
            EXPECT_EQ(exists, !did(REMOVE | SWEEP));
            EXPECT_EQ(active, exists && failures == 0);
        }
        if (exists && did(SET) != did(STOP) && !s.half_set) {
            EXPECT_EQ(active, did(SET));
        }
    }

    void check_packet(bool exists) const
    {
        EXPECT_TRUE(exists || did(TX_REMOVE | SWEEP));
        EXPECT_FALSE(exists && did(TX_REMOVE | SWEEP) && !did(TX_SET | TX_OUT_OF_BAND));
        if (exists && !did(TX_REMOVE | SWEEP)) {
            s.w.advance(2); // a packet of which the due tick was set to now
            // A second request before the first has gone out takes that for the rhythm, which
            // then goes on at the next tick.
            const std::uint64_t in_band = tx_stats(s.a, PACKET)->num_sent;
            EXPECT_GE(in_band, 1U);
            EXPECT_LE(in_band, s.out_of_band > 1 ? 2U : 1U);
            EXPECT_LE(s.w.frames().size() - in_band, s.out_of_band);
            if (failures == 1) { // a latch survives a replacement
                s.w.advance(INTERVAL);
                EXPECT_GE(tx_stats(s.a, PACKET)->num_latches, 1U);
                EXPECT_LE(tx_stats(s.a, PACKET)->num_latches, did(SET) ? 2U : 1U);
            }
        }
        if (s.frames_at_removal && !did(TX_SET | TX_OUT_OF_BAND)) {
            EXPECT_EQ(s.w.frames().size(), *s.frames_at_removal);
        }
    }

    // From now on in order: the packet in its rhythm, the session one failure if it is active.
    void check_transmission(bool exists, bool active) const
    {
        s.w.advance(3);
        const std::size_t first = s.w.frames().size();
        s.w.advance(1000);
        const std::vector<frame> &frames = s.w.frames();
        EXPECT_EQ(frames.size() - first >= 3, exists);
        for (std::size_t i = first + 1; i < frames.size(); ++i)
            EXPECT_EQ(frames[i].tick - frames[i - 1].tick, INTERVAL);
        const std::size_t later_failures = s.listener.read_messages().size();
        EXPECT_LE(later_failures, 1U);
        if (!s.half_set) {
            EXPECT_EQ(later_failures, active ? 1U : 0U);
        }
    }

    void check_end() const
    {
        delete_session(s.a, SESSION);
        delete_packet(s.a, PACKET);
        s.w.advance(INTERVAL);
        EXPECT_EQ(s.w.timers(), 0U);
        EXPECT_EQ(s.w.memory_in_use(), s.memory);
    }
};

TEST(interleavings, every_pair_in_every_order)
{
    std::size_t extra_references = 0;
    for (unsigned first = TIMERS; first <= LAST; first <<= 1) {
        for (unsigned second = TIMERS; second <= LAST; second <<= 1) {
            std::size_t failed = 0;
            std::uint64_t k = 1;
            for (;; ++k) {
                SCOPED_TRACE(testing::Message() << "operation " << first << ", at lock point " << k
                                                << " operation " << second);
                scene s(k);
                bool over = false;
                s.w.at_lock_point(k, [&] {
                    if (!over)
                        perform(s, static_cast<operation>(second), *s.agents[1]);
                });
                perform(s, static_cast<operation>(first), *s.agents[0]);
                over = true;
                if (s.w.actions_left() != 0)
                    break;
                checker c{s, first | second};
                c.check();
                failed += c.failures;
                extra_references += s.w.logged("releasing extra reference");
                if (testing::Test::HasFailure())
                    return;
            }
            EXPECT_GT(k, 5U) << first;
            // Who is first decides, and it has gone both ways.
            if (first == TIMERS && (second == DATAGRAM || second == SET || second == REMOVE)) {
                EXPECT_GT(failed, 0U) << second;
                EXPECT_LT(failed, k - 1) << second;
            }
        }
    }
    EXPECT_GT(extra_references, 0U);
}

TEST(interleavings, three_processors_by_seed)
{
    random_source random(42);
    for (std::uint64_t seed = 1; seed <= 3000; ++seed) {
        scene s(seed);
        unsigned done = 0;
        std::vector<std::function<void()>> processors;
        for (agent *mine : s.agents) {
            const auto what = static_cast<operation>(1U << random.below(9));
            done |= what;
            processors.emplace_back([&s, what, mine] { perform(s, what, *mine); });
        }
        SCOPED_TRACE(testing::Message() << "seed " << seed << ": operations " << done);
        s.w.race(processors);
        // Who removes and sets again in the same moment has no claim to either.
        if (s.failures_at_removal && (done & (SET | STOP)) != 0)
            s.failures_at_removal.reset();
        checker{s, done}.check();
        if (testing::Test::HasFailure())
            return;
    }
}

// A namespace goes while its timers are due, datagrams of others arrive, and its sessions link
// and are linked across vrfs.
TEST(interleavings, a_namespace_that_goes_takes_everything_along)
{
    for (std::uint64_t seed = 1; seed <= 500; ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        scene s(seed);
        net &red = s.w.create_namespace("red");
        agent &there = s.w.open_agent(red);
        agent &hears = s.w.open_agent(red, {.groups = NOTIFICATION});
        ASSERT_EQ(set_packet(there, 8), 0);
        ASSERT_EQ(
            set_session(there, 8, rx{.multiplier = 1, .period = 25'000, .latch = {8, PACKET}}), 0);
        ASSERT_EQ(set_session(s.a, 9, rx{.flags = 0, .latch = {8}}), 0);
        there.close();
        hears.close();
        s.w.abandon(red);
        s.w.pass(25); // the cleanup thread wants to run, all timers are due
        s.w.race({[&] { s.w.run_timers(); }, [&] { s.w.run_timers(); },
                  [&] { EXPECT_TRUE(receive(s.w, SESSION)); },
                  [&] { EXPECT_EQ(delete_session(*s.agents[0], 9), 0); }});
        s.w.advance(50);
        EXPECT_FALSE(world::alive(red));
        s.w.take_frames();
        s.listener.read_messages();
        s.w.advance(2 * INTERVAL);
        for (const frame &each : s.w.frames())
            EXPECT_EQ(each.netns, &s.w.initial());
        EXPECT_EQ(delete_session(s.a, SESSION), 0);
        EXPECT_EQ(delete_packet(s.a, PACKET), 0);
        s.w.advance(INTERVAL);
        EXPECT_EQ(s.w.timers(), 0U);
        EXPECT_EQ(s.w.memory_in_use(), s.memory);
        if (testing::Test::HasFailure())
            return;
    }
}

} // namespace
