// SPDX-License-Identifier: GPL-2.0
//
// One session of kelm-agent: intervals and Poll Sequences, failure, restart, the administrator.
// What is expected is what RFC 5880 sections 6.5 to 6.8 demand.
#include <gtest/gtest.h>
#include <vector>

#include "kelm-agent/session.h"

namespace
{

using namespace kelm_agent;
using std::chrono::milliseconds;

constexpr kelm_microsecs ms = 1000;
constexpr std::uint32_t our_discriminator = 5;
constexpr std::uint32_t peer_discriminator = 9;

session_config config_with(kelm_microsecs tx, kelm_microsecs rx)
{
    session_config config;
    config.name = "s";
    config.timing = {tx, rx};
    return config;
}

kelm::bfd_fields says(std::uint8_t state, kelm_microsecs tx = 1000 * ms,
                      kelm_microsecs rx = 50 * ms)
{
    kelm::bfd_fields fields;
    fields.state = state;
    fields.detect_multiplier = 4;
    fields.my_discriminator = peer_discriminator;
    fields.your_discriminator = our_discriminator;
    fields.min_tx_interval = tx;
    fields.min_rx_interval = rx;
    return fields;
}

kelm::bfd_fields polls(kelm::bfd_fields fields)
{
    fields.poll = true;
    return fields;
}

kelm::bfd_fields answers(kelm::bfd_fields fields)
{
    fields.final = true;
    return fields;
}

struct agent_session : testing::Test {
    // A session that is Up, and whose Poll Sequence has ended.
    void bring_up()
    {
        subject = session(config_with(100 * ms, 200 * ms), our_discriminator);
        subject.packet(says(BFD_STATE_INIT), now);
        peer_confirms();
        ASSERT_TRUE(subject.is_up());
        ASSERT_FALSE(subject.polling());
    }

    void peer_confirms() { subject.packet(answers(says(BFD_STATE_UP, 60 * ms)), now); }

    intervals periods() const { return {sent().period, received().period}; }
    transmission sent() const { return *subject.current().transmit; }
    reception received() const { return *subject.current().receive; }

    session subject{config_with(100 * ms, 200 * ms), our_discriminator};
    steady_time now = steady_time(std::chrono::hours(1));
};

TEST_F(agent_session, is_slow_until_it_is_up)
{
    EXPECT_EQ(sent().bfd.min_tx_interval, 1000 * ms);
    EXPECT_EQ(sent().period, 1000 * ms);
    EXPECT_EQ(sent().bfd.your_discriminator, 0U);
    EXPECT_FALSE(received().timer_active);

    subject.packet(says(BFD_STATE_DOWN), now);
    EXPECT_EQ(subject.state().state, BFD_STATE_INIT);
    EXPECT_EQ(sent().bfd.your_discriminator, peer_discriminator);
    EXPECT_TRUE(received().timer_active);
    EXPECT_EQ(periods(), (intervals{1000 * ms, 1000 * ms}));
    EXPECT_EQ(received().multiplier, 4);

    subject.packet(says(BFD_STATE_UP), now);
    EXPECT_TRUE(subject.is_up());
    EXPECT_EQ(sent().bfd.min_tx_interval, 100 * ms);
    EXPECT_EQ(sent().period, 100 * ms) << "a faster rate needs no leave";
    EXPECT_TRUE(sent().bfd.poll);
    EXPECT_EQ(sent().latch_period, 1000 * ms);
    EXPECT_EQ(received().latch_diag, BFD_DIAG_CTRL_TIMEOUT);

    subject.packet(answers(says(BFD_STATE_UP, 60 * ms, 150 * ms)), now);
    EXPECT_FALSE(sent().bfd.poll);
    EXPECT_EQ(periods(), (intervals{150 * ms, 200 * ms})) << "not more often than each wants";
}

// RFC 5880 section 6.8.3: slowing down, and asking for more, wait for the end of the Poll Sequence.
TEST_F(agent_session, changes_of_rate_while_up)
{
    struct {
        intervals wanted;
        kelm_microsecs tx_before, tx_after, rx_before, rx_after;
    } const cases[] = {
        {{400 * ms, 200 * ms}, 100 * ms, 400 * ms, 200 * ms, 200 * ms},
        {{70 * ms, 200 * ms}, 70 * ms, 70 * ms, 200 * ms, 200 * ms},
        {{100 * ms, 500 * ms}, 100 * ms, 100 * ms, 500 * ms, 500 * ms},
        {{100 * ms, 80 * ms}, 100 * ms, 100 * ms, 200 * ms, 80 * ms},
    };
    for (const auto &c : cases) {
        bring_up();
        subject.reconfigure(config_with(c.wanted.desired_min_tx, c.wanted.required_min_rx));
        EXPECT_TRUE(sent().bfd.poll);
        EXPECT_EQ(sent().bfd.min_tx_interval, c.wanted.desired_min_tx);
        EXPECT_EQ(sent().bfd.min_rx_interval, c.wanted.required_min_rx);
        EXPECT_EQ(periods(), (intervals{c.tx_before, c.rx_before}));
        peer_confirms();
        EXPECT_FALSE(sent().bfd.poll);
        EXPECT_EQ(periods(), (intervals{c.tx_after, c.rx_after}));
    }
}

TEST_F(agent_session, a_change_during_a_poll_sequence_gets_one_of_its_own)
{
    bring_up();
    subject.reconfigure(config_with(400 * ms, 200 * ms));
    subject.reconfigure(config_with(600 * ms, 200 * ms));
    EXPECT_EQ(sent().period, 100 * ms);
    peer_confirms();
    EXPECT_EQ(sent().period, 400 * ms) << "that much the peer has confirmed";
    EXPECT_FALSE(sent().bfd.poll) << "a late answer must not count for the next one";
    ASSERT_TRUE(subject.due());
    const steady_time due = *subject.due();
    subject.packet(answers(says(BFD_STATE_UP, 60 * ms)), now + milliseconds(1));
    EXPECT_EQ(subject.due(), due) << "nor put it off";
    subject.wake(due);
    EXPECT_TRUE(sent().bfd.poll);
    peer_confirms();
    EXPECT_EQ(sent().period, 600 * ms);
    EXPECT_FALSE(sent().bfd.poll || subject.due());
}

// The peer has heard of the first change, or of the second: it may go by either.
TEST_F(agent_session, a_change_that_is_taken_back_before_it_is_confirmed)
{
    const session_config changed = config_with(50 * ms, 500 * ms);
    for (const intervals last : {intervals{400 * ms, 80 * ms}, intervals{100 * ms, 200 * ms}}) {
        bring_up();
        subject.reconfigure(changed);
        subject.reconfigure(config_with(last.desired_min_tx, last.required_min_rx));
        for (int answer = 0; answer < 2; ++answer) {
            EXPECT_EQ(sent().bfd.min_tx_interval, last.desired_min_tx);
            EXPECT_TRUE(sent().bfd.poll);
            EXPECT_EQ(periods(), (intervals{50 * ms, 500 * ms}));
            peer_confirms();
            if (subject.due())
                subject.wake(*subject.due());
        }
        EXPECT_EQ(periods(), last);
        EXPECT_FALSE(sent().bfd.poll);
    }
}

TEST_F(agent_session, poll_and_final_never_together)
{
    bring_up();
    EXPECT_TRUE(subject.packet(polls(says(BFD_STATE_UP)), now).is_final);
    EXPECT_FALSE(subject.due());

    subject.reconfigure(config_with(400 * ms, 200 * ms));
    const desired_state wanted = subject.packet(polls(says(BFD_STATE_UP)), now);
    EXPECT_TRUE(wanted.is_final);
    EXPECT_FALSE(wanted.transmit->bfd.poll);
    ASSERT_TRUE(subject.due());
    const steady_time due = *subject.due();
    subject.packet(polls(says(BFD_STATE_UP)), now + milliseconds(50));
    EXPECT_EQ(subject.due(), due) << "a peer that polls and polls does not put us off";
    subject.wake(due);
    EXPECT_TRUE(sent().bfd.poll);
}

TEST_F(agent_session, failure_and_what_follows)
{
    bring_up();
    desired_state wanted = subject.timeout(now);
    EXPECT_EQ(subject.state(), (condition{BFD_STATE_DOWN, BFD_DIAG_CTRL_TIMEOUT}));
    EXPECT_EQ(wanted.transmit->bfd.your_discriminator, 0U);
    EXPECT_EQ(wanted.transmit->period, 1000 * ms);
    EXPECT_FALSE(wanted.receive->timer_active);
    EXPECT_EQ(wanted.receive->latch_diag, BFD_DIAG_NONE);
    EXPECT_TRUE(wanted.renew);
    EXPECT_FALSE(wanted.forget_sequence) << "it holds for twice the detection time";
    EXPECT_FALSE(subject.timeout(now + milliseconds(1)).renew) << "once is enough";

    const steady_time twice = now + milliseconds(4 * 200);
    EXPECT_EQ(subject.due(), twice);
    EXPECT_FALSE(subject.wake(twice - milliseconds(1)).renew);
    wanted = subject.wake(twice);
    EXPECT_TRUE(wanted.renew && wanted.forget_sequence);
    EXPECT_FALSE(subject.due());
}

// It may come Up with the very packet that kelm has passed up last.
TEST_F(agent_session, a_peer_that_has_lost_us_is_heard_afresh)
{
    bring_up();
    kelm::bfd_fields stranger = says(BFD_STATE_DOWN);
    stranger.your_discriminator = 0;
    for (const int state : {BFD_STATE_DOWN, BFD_STATE_INIT}) {
        const desired_state wanted = subject.packet(stranger, now);
        EXPECT_EQ(subject.state().state, state);
        EXPECT_TRUE(wanted.renew && wanted.receive->timer_active);
        EXPECT_FALSE(wanted.forget_sequence);
    }
}

TEST_F(agent_session, a_peer_in_demand_mode_or_not_listening_is_left_alone)
{
    bring_up();
    kelm::bfd_fields demanding = says(BFD_STATE_UP, 60 * ms);
    demanding.demand_mode = true;
    subject.packet(demanding, now);
    EXPECT_EQ(sent().period, idle_period);
    subject.reconfigure(config_with(400 * ms, 200 * ms));
    EXPECT_EQ(sent().period, 100 * ms) << "a Poll Sequence is sent all the same";
    subject.packet(answers(demanding), now);
    EXPECT_EQ(sent().period, idle_period);
    demanding.state = BFD_STATE_DOWN;
    subject.packet(demanding, now);
    EXPECT_EQ(sent().period, 1000 * ms);

    subject.packet(says(BFD_STATE_DOWN, 1000 * ms, 0), now);
    EXPECT_EQ(sent().period, idle_period);
    EXPECT_EQ(sent().latch_period, idle_period) << "nor after a failure";

    const auto rests = [this] {
        for (int i = 0; i < 2 && subject.due(); ++i) {
            now = std::max(now, *subject.due());
            subject.wake(now);
        }
        return !subject.current().transmit;
    };
    EXPECT_TRUE(rests()) << "once it has been told";
    EXPECT_TRUE(subject.packet(polls(says(BFD_STATE_DOWN, 1000 * ms, 0)), now).transmit);
    EXPECT_TRUE(rests());
    subject.timeout(now);
    EXPECT_TRUE(sent().bfd.diag != BFD_DIAG_NONE) << "news is told";
    subject.packet(says(BFD_STATE_DOWN, 1000 * ms, 50 * ms), now);
    EXPECT_EQ(sent().period, 1000 * ms);
    EXPECT_FALSE(subject.due());
}

TEST_F(agent_session, jitter_and_detection_time_by_multiplier)
{
    session_config config = config_with(100 * ms, 200 * ms);
    config.multiplier = 1;
    subject.reconfigure(config);
    EXPECT_EQ(sent().jitter, BFD_TX_JITTER_75_90);
    EXPECT_EQ(sent().bfd.detect_multiplier, 1);

    kelm::bfd_fields extreme = says(BFD_STATE_DOWN, 0xffffffff);
    extreme.detect_multiplier = 255;
    subject.packet(extreme, now);
    EXPECT_EQ(received().multiplier, 255);
    EXPECT_LE(std::uint64_t{255} * received().period, 0xffffffffU) << "kelm multiplies in 32 bits";
    EXPECT_GT(received().period, 16'000 * ms);
}

TEST_F(agent_session, the_passive_end_waits_to_be_spoken_to)
{
    session_config config = config_with(100 * ms, 200 * ms);
    config.passive = true;
    subject = session(config, our_discriminator);
    EXPECT_FALSE(subject.current().transmit);
    kelm::bfd_fields first = says(BFD_STATE_DOWN);
    first.your_discriminator = 0;
    const desired_state wanted = subject.packet(first, now);
    EXPECT_TRUE(wanted.transmit);
    EXPECT_TRUE(wanted.rearm) << "kelm has not seen that the packet is this session's";
    EXPECT_FALSE(sent().is_silent);
    subject.timeout(now);
    EXPECT_TRUE(sent().is_silent) << "but the packet keeps its sequence number";
    EXPECT_EQ(sent().period, idle_period);
    subject.forgotten();
    EXPECT_FALSE(subject.current().transmit);
    EXPECT_TRUE(subject.adopt({.heard = {}, .state = {}, .in_effect = {}, .has_packet = true}, now)
                    .transmit);
}

TEST_F(agent_session, downs_that_are_not_failures)
{
    bring_up();
    desired_state wanted = subject.set_admin_down(true);
    EXPECT_EQ(subject.state(), administratively_down());
    EXPECT_FALSE(wanted.receive);
    EXPECT_EQ(wanted.transmit->bfd.diag, BFD_DIAG_ADMIN_DOWN);
    EXPECT_EQ(wanted.transmit->bfd.your_discriminator, peer_discriminator);
    EXPECT_EQ(wanted.transmit->period, 1000 * ms);
    subject.packet(says(BFD_STATE_INIT), now);
    EXPECT_TRUE(subject.is_admin_down());
    wanted = subject.set_admin_down(false);
    EXPECT_EQ(subject.state(), (condition{BFD_STATE_DOWN, BFD_DIAG_NONE}));
    EXPECT_EQ(wanted.transmit->bfd.your_discriminator, 0U);
    EXPECT_FALSE(wanted.receive->timer_active);

    // kelm has begun anew.
    bring_up();
    wanted = subject.forgotten();
    EXPECT_EQ(subject.state(), (condition{BFD_STATE_DOWN, BFD_DIAG_FORWARDING_RESET}));
    EXPECT_FALSE(wanted.receive->timer_active);
    EXPECT_EQ(wanted.transmit->bfd.your_discriminator, 0U);
}

TEST_F(agent_session, takes_over_from_an_earlier_run)
{
    const auto heard = says(BFD_STATE_UP, 60 * ms);
    const std::optional<std::uint8_t> up = BFD_STATE_UP;
    const std::optional<std::uint8_t> down = BFD_STATE_DOWN;
    struct {
        const char *what;
        std::optional<kelm::bfd_fields> heard;
        bool timer_active;
        std::optional<std::uint8_t> recorded;
        condition expected;
    } const cases[] = {
        {"healthy", heard, true, up, {BFD_STATE_UP, BFD_DIAG_NONE}},
        {"no record", heard, true, {}, {BFD_STATE_UP, BFD_DIAG_NONE}},
        {"failed meanwhile", heard, false, up, {BFD_STATE_DOWN, BFD_DIAG_CTRL_TIMEOUT}},
        {"the peer went down",
         says(BFD_STATE_DOWN),
         true,
         up,
         {BFD_STATE_INIT, BFD_DIAG_NEIGH_DOWN}},
        {"was down", heard, true, down, {BFD_STATE_DOWN, BFD_DIAG_NONE}},
        {"came up", polls(says(BFD_STATE_INIT)), true, down, {BFD_STATE_UP, BFD_DIAG_NONE}},
        {"never heard", {}, false, down, {BFD_STATE_DOWN, BFD_DIAG_NONE}},
    };
    for (const auto &c : cases) {
        session taken(config_with(100 * ms, 200 * ms), our_discriminator);
        const desired_state wanted =
            taken.adopt({c.heard, c.timer_active, c.recorded, {}, false}, now);
        EXPECT_EQ(taken.state(), c.expected) << c.what;
        EXPECT_EQ(wanted.receive->timer_active, c.heard && c.timer_active) << c.what;
        EXPECT_FALSE(wanted.is_final) << c.what;
    }
    session stopped(config_with(100 * ms, 200 * ms), our_discriminator);
    EXPECT_FALSE(stopped.adopt({heard, true, up, {}, true}, now).receive);
    EXPECT_TRUE(stopped.is_admin_down());

    // A peer that has not been told of a change must not wait longer than it knows of.
    subject = session(config_with(400 * ms, 80 * ms), our_discriminator);
    subject.adopt({heard, true, {}, intervals{100 * ms, 200 * ms}, false}, now);
    EXPECT_EQ(periods(), (intervals{100 * ms, 200 * ms}));
    EXPECT_TRUE(sent().bfd.poll);
    EXPECT_EQ(sent().bfd.min_tx_interval, 400 * ms);
}

TEST_F(agent_session, sbfd_initiator)
{
    session_config config = config_with(100 * ms, 200 * ms);
    config.kind = session_kind::sbfd;
    config.remote_discriminator = 77;
    subject = session(config, our_discriminator);
    EXPECT_EQ(sent().bfd.your_discriminator, 77U);
    EXPECT_TRUE(sent().bfd.demand_mode);
    subject.packet(says(BFD_STATE_UP, 10 * ms, 150 * ms), now);
    EXPECT_TRUE(subject.is_up());
    EXPECT_FALSE(sent().bfd.poll);
    EXPECT_EQ(periods(), (intervals{150 * ms, 150 * ms})) << "no faster than the reflector can";
    EXPECT_EQ(received().multiplier, 3) << "our own";
    EXPECT_FALSE(subject.packet(polls(says(BFD_STATE_UP)), now).is_final);
    subject.timeout(now);
    EXPECT_EQ(sent().bfd.your_discriminator, 77U);
}

TEST_F(agent_session, echo_hears_itself)
{
    session_config config = config_with(100 * ms, 200 * ms);
    config.kind = session_kind::echo;
    subject = session(config, our_discriminator);
    EXPECT_EQ(sent().period, 1000 * ms);
    for (const auto expected : {BFD_STATE_INIT, BFD_STATE_UP, BFD_STATE_UP}) {
        EXPECT_EQ(sent().bfd.your_discriminator, our_discriminator);
        EXPECT_FALSE(sent().bfd.poll);
        subject.packet(sent().bfd, now);
        EXPECT_EQ(subject.state().state, expected);
    }
    EXPECT_EQ(periods(), (intervals{100 * ms, 100 * ms}));
    EXPECT_EQ(received().multiplier, 3);
    subject.timeout(now);
    EXPECT_EQ(subject.state(), (condition{BFD_STATE_DOWN, BFD_DIAG_ECHO_FAIL}));
    EXPECT_FALSE(subject.set_admin_down(true).transmit);
}

} // namespace
