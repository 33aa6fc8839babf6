// SPDX-License-Identifier: GPL-2.0
//
// What a restarted agent needs: the dump of everything that a vrf holds, and the sweep of the
// vrfs that nobody has claimed since the mark.
#include <cerrno>

#include "engine_fixture.h"

namespace
{

using namespace sim;

TEST(sync_dump, tells_of_sessions_with_their_frames_and_of_packets)
{
    world w({.namespaces = {"red"}});
    agent &a = w.open_agent(w.initial(), {.groups = control_group});
    ASSERT_EQ(set_session(a, 5, rx{}), 0);
    ASSERT_EQ(set_session(a, 37), 0);
    ASSERT_EQ(set_session(a, 6, rx{}), 0);
    ASSERT_EQ(set_packet(a, 9), 0);
    ASSERT_EQ(set_session(w.open_agent(w.find("red")), 7), 0);
    w.advance(500);
    datagram packet = arriving({.your_discriminator = 5});
    packet.member_ifindex = 17;
    ASSERT_TRUE(w.deliver(w.initial(), packet));
    w.advance(500); // session 6 has timed out, 5 has not
    const std::vector<message> passed_up = a.read_messages();
    ASSERT_EQ(names(passed_up), strings{"packet_change 5"});

    const dump_result result = sync_dump(a);
    EXPECT_EQ(result.error, 0);
    EXPECT_EQ(names(result.messages),
              (strings{"packet_change 5", "rx_sync 5", "rx_sync 37", "rx_sync 6", "tx_sync 9"}));
    EXPECT_EQ(result.messages[0].body, passed_up[0].body);
    for (const auto &m : bodies<kelm_msg_rx_sync>(result.messages, KELM_MSG_RX_SYNC))
        EXPECT_EQ(m.timer_active, m.header.discriminator == 5 ? 1U : 0U);
    for (const message &m : result.messages) {
        EXPECT_EQ(m.header.nlmsg_seq, a.last_seq());
        EXPECT_EQ(m.header.nlmsg_pid, a.id());
        EXPECT_EQ(m.header.nlmsg_flags, 0U);
    }
}

void fill(agent &a)
{
    ASSERT_EQ(set_packet(a, 5), 0);
    ASSERT_EQ(set_session(a, 5, rx{.latch = {5}}), 0);
}

bool is_empty(agent &a)
{
    return sync_dump(a).messages.empty();
}

// A number of vrfs with a session and a packet each.
struct vrfs {
    explicit vrfs(std::size_t number)
    {
        while (agents.size() < number) {
            net &ns = agents.empty() ? w.initial()
                                     : w.create_namespace("ns" + std::to_string(agents.size()));
            agents.push_back(&w.open_agent(ns));
            fill(*agents.back());
        }
    }
    agent &operator[](std::size_t i) { return *agents[i]; }

    world w;
    std::vector<agent *> agents;
};

TEST(sweep, empties_the_vrfs_that_nobody_has_claimed)
{
    for (const std::size_t number : {20U, 21U, 40U}) { // of which 16 are swept at once
        SCOPED_TRACE(testing::Message() << number << " vrfs");
        vrfs of(number);
        ASSERT_EQ(path_ready(of[0]), 0);
        ASSERT_EQ(set_debug_level(of[0], 3), 0);
        ASSERT_EQ(mark_or_sweep(of[0], KELM_SYNC_MARK), 0); // is no claim itself
        // A refused message claims its vrf as well, but for those refused before it is looked up.
        EXPECT_EQ(delete_session(of[1], 99), -ENOENT);
        EXPECT_EQ(ask(of[2], KELM_MSG_RX_STATS, bytes(4)), -EPERM);
        EXPECT_EQ(ask(of[3], KELM_MSG_TX_SET_PACKET, bytes(4)), -EINVAL);
        EXPECT_EQ(ask(of[4], 32, bytes(4)), -ENOMSG);
        of[5].set_privileged(false);
        EXPECT_EQ(set_session(of[5], 6), -EPERM);
        of[5].set_privileged(true);
        ASSERT_EQ(mark_or_sweep(of[6], KELM_SYNC_SWEEP), 0);

        EXPECT_EQ(of.w.logged("kelm Netlink: Clearing unmarked vrf"), number - 4);
        ASSERT_EQ(set_debug_level(of[0], 1), 0);
        for (std::size_t i = 0; i < number; ++i)
            EXPECT_EQ(is_empty(of[i]), i == 0 || i == 4 || i == 5 || i > 6) << i;
        of.w.advance(2000);
        EXPECT_EQ(of.w.timers(), 4U); // packets only: the sessions have timed out

        // No vrf is marked any more, and all are in use.
        for (agent *a : of.agents)
            fill(*a);
        ASSERT_EQ(mark_or_sweep(of[1], KELM_SYNC_SWEEP), 0);
        for (agent *a : of.agents)
            EXPECT_TRUE(is_empty(*a));
        of.w.advance(2000);
        EXPECT_EQ(of.w.timers(), 0U);
    }
}

TEST(sweep, needs_its_flag_and_no_mark)
{
    vrfs of(3);
    const struct {
        std::vector<std::uint32_t> flags;
        bool kept; // by those who have spoken since the first of them
    } cases[] = {
        {{0x1, 0x4, 0x80000000, 0x1}, true},
        {{0x1, 0x2}, true},
        {{0x1, 0x2, 0x2}, false}, // the marks are gone with the first sweep
        {{0x4, 0x2}, false},
        {{0x3}, false},
        {{0x2}, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &c - cases);
        for (agent *a : of.agents)
            fill(*a);
        for (std::size_t i = 0; i < c.flags.size(); ++i) {
            ASSERT_EQ(mark_or_sweep(of[0], c.flags[i]), 0);
            if (i == 0 && c.flags.size() > 1) {
                EXPECT_FALSE(is_empty(of[1]));
            }
        }
        EXPECT_NE(is_empty(of[1]), c.kept);
        // What is not swept at the end of a mark phase is swept at the next.
        ASSERT_EQ(mark_or_sweep(of[0], KELM_SYNC_SWEEP), 0);
        EXPECT_TRUE(is_empty(of[2]));
    }
}

// Another processor that wants the packets' table while a long chain is swept gets it soon.
TEST(sweep, frees_packets_one_by_one)
{
    bool served_in_between = false;
    for (std::uint64_t k = 1;; ++k) {
        world w;
        agent &a = w.open_agent(w.initial());
        agent &other = w.open_agent(w.initial());
        for (std::uint32_t i = 1; i <= 5; ++i)
            ASSERT_EQ(set_packet(a, 32 * i), 0);
        ASSERT_EQ(set_debug_level(a, 2), 0);
        bool sweeping = true;
        w.at_lock_point(k, [&] {
            if (!sweeping)
                return;
            EXPECT_EQ(delete_packet(other, 1), -ENOENT);
            const std::size_t freed = w.logged("Free tx_packet");
            served_in_between = served_in_between || (freed > 0 && freed < 5);
        });
        ASSERT_EQ(mark_or_sweep(a, KELM_SYNC_SWEEP), 0);
        sweeping = false;
        EXPECT_EQ(w.logged("Free tx_packet"), 5U);
        if (w.actions_left() != 0)
            break;
    }
    EXPECT_TRUE(served_in_between);
}

} // namespace
