// SPDX-License-Identifier: GPL-2.0
//
// Periodic statistics: when they come, what they hold, who gets them, and what stops them.
#include <algorithm>
#include <cerrno>

#include "engine_fixture.h"

namespace
{

using namespace sim;

constexpr std::uint32_t BROADCAST_SIZE = 2048;

struct periodic : testing::Test {
    // The messages that have come since the last time.
    strings received() { return names(observer.read_messages()); }

    // So many packets in the initial namespace.
    void set_packets(std::uint32_t number)
    {
        for (std::uint32_t discriminator = 1; discriminator <= number; ++discriminator)
            ASSERT_EQ(set_packet(a, discriminator), 0);
    }

    world w{{.namespaces = {"red"}}};
    net &red = w.find("red");
    agent &a = w.open_agent(w.initial());
    agent &observer = w.open_agent(w.initial(), {.groups = CONTROL});
};

const strings ONE_RUN = {"module_stats", "module_stats"};

TEST_F(periodic, runs_at_once_and_then_at_each_interval)
{
    struct request {
        std::uint16_t interval;
        std::uint32_t discriminator;
        int result;
        std::uint64_t ticks; // between runs, from now on
    };
    // The longest one is all that the field holds; with a discriminator nothing changes.
    const request requests[] = {
        {10, 0, 0, 10'000}, {7, 0, 0, 7000}, {1, 3, -EINVAL, 7000}, {65535, 0, 0, 65'535'000}};
    for (const auto &[interval, discriminator, result, ticks] : requests) {
        SCOPED_TRACE(interval);
        w.pass(result == 0 ? 4000 : 0); // an interval counts from its request
        EXPECT_EQ(set_interval(a, interval, discriminator), result);
        EXPECT_EQ(received(), result == 0 ? ONE_RUN : strings{});
        for (int run = 0; run < 3; ++run) {
            w.pass(ticks - 1);
            w.run_timers();
            EXPECT_EQ(received(), strings{});
            w.pass(1);
            w.run_timers();
            EXPECT_EQ(received(), ONE_RUN);
        }
    }
    ASSERT_EQ(set_interval(a, 0), 0);
    EXPECT_EQ(received(), strings{});
    EXPECT_EQ(w.timers(), 0U);
}

TEST_F(periodic, holds_everything_of_every_vrf_the_newest_first)
{
    agent &theirs = w.open_agent(red, {.groups = CONTROL | NOTIFICATION});
    agent &other_group = w.open_agent(w.initial(), {.groups = NOTIFICATION});
    ASSERT_EQ(set_session(a, 5), 0);
    set_packets(2);
    ASSERT_EQ(set_session(theirs, 8), 0);
    ASSERT_EQ(set_interval(theirs, 1), 0); // by whom does not matter
    w.advance(1000);
    EXPECT_EQ(module_stats(a).seq_num, 5U);

    const std::vector<message> messages = observer.read_messages();
    const strings run = {"rx_stats 8", "module_stats", "rx_stats 5",
                         "tx_stats 1", "tx_stats 2",   "module_stats"};
    strings two_runs = run;
    two_runs.insert(two_runs.end(), run.begin(), run.end());
    EXPECT_EQ(names(messages), two_runs);
    for (const message &m : messages)
        EXPECT_EQ(m.header.nlmsg_seq + m.header.nlmsg_pid + m.header.nlmsg_flags, 0U);
    std::uint64_t seq_num = 0;
    for (const auto &m : bodies<kelm_msg_module_stats>(messages, KELM_MSG_MODULE_STATS)) {
        EXPECT_EQ(m.seq_num, ++seq_num);
        EXPECT_EQ(m.unsolicited, 1U);
    }
    EXPECT_EQ(bodies<kelm_msg_rx_stats>(messages, KELM_MSG_RX_STATS).at(0).unsolicited, 1U);
    EXPECT_EQ(bodies<kelm_msg_tx_stats>(messages, KELM_MSG_TX_STATS).at(0).unsolicited, 1U);
    EXPECT_EQ(theirs.queued(), 0U);
    EXPECT_EQ(other_group.queued(), 0U);
}

TEST_F(periodic, fills_as_many_datagrams_as_it_takes)
{
    set_packets(28);
    ASSERT_EQ(set_interval(a, 1), 0);
    strings all;
    std::size_t datagrams = 0;
    for (; observer.queued() != 0; ++datagrams) {
        const bytes datagram = *observer.read();
        EXPECT_LE(datagram.size(), BROADCAST_SIZE);
        for (const message &m : parse_messages(datagram))
            all.push_back(name(m));
    }
    EXPECT_EQ(datagrams, 3U); // ten packets' statistics go into one
    EXPECT_EQ(all.size(), 30U);
    std::ranges::sort(all);
    EXPECT_EQ(std::ranges::unique(all).size(), 1U); // but for the two of the vrfs
}

// The only vrf goes between a run's first look at the list and its second.
TEST(periodic_run, without_a_vrf_warns_once)
{
    world w({.start = false});
    w.fail(service::netlink_socket, -ENOMEM); // the initial namespace's
    ASSERT_EQ(w.start(), 0);
    w.expect_warning("No VRFs!");
    for (int gone = 0, round = 0; gone < 2; ++round) {
        net &ns = w.create_namespace("ns" + std::to_string(round));
        agent &a = w.open_agent(ns);
        ASSERT_EQ(set_interval(a, 1), 0);
        ASSERT_EQ(set_debug_level(a, 2), 0);
        a.close();
        w.abandon(ns);
        w.pass(1000); // the cleanup thread wants to run, too
        w.clear_log();
        w.race({[&] { w.run_timers(); }});
        if (w.logged("Initializing first VRF") > w.logged("dump_rxtx result"))
            ++gone;
        w.advance(50);
    }
}

} // namespace
