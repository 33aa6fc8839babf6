// SPDX-License-Identifier: GPL-2.0
//
// The module's start and stop, and its vrfs: they come and go with the network namespaces.
#include "engine_fixture.h"
#include "platform/sim/net.h"

#include <cerrno>

namespace
{

using namespace sim;
using strings = std::vector<std::string>;

constexpr std::uint64_t CLEANUP_PERIOD = 25; // ticks

// Everything that the log says.
strings lines(const world &w)
{
    strings result;
    for (const log_line &line : w.log())
        result.push_back(line.text);
    return result;
}

bool has_vrf(agent &a)
{
    return get_stats(a, 0, 0).error == 0;
}

TEST(start, gives_every_namespace_a_vrf_the_initial_one_first)
{
    world w({.namespaces = {"red", "blue"}});
    EXPECT_EQ(lines(w), strings{});
    std::uint32_t discriminator = 1;
    for (const char *ns : {"initial", "red", "blue"}) {
        agent &a = w.open_agent(w.find(ns));
        ASSERT_EQ(set_session(a, discriminator++), 0) << ns;
    }
    // The newest first.
    agent &a = w.open_agent(w.initial());
    EXPECT_EQ(names(get_stats(a, 0, KELM_STATS_ALL_VRFS).messages),
              (strings{"rx_stats 3", "rx_stats 2", "rx_stats 1"}));
    for (const int port : {3784, 3785, 6784, 4784, 47657})
        EXPECT_EQ(w.find("red").udp_ports.count(static_cast<std::uint16_t>(port)), 1U) << port;
}

TEST(start, fails_as_a_whole_when_notifier_or_thread_fails)
{
    const struct {
        service failing;
        int error;
        const char *line;
    } cases[] = {
        {service::notifier, -EEXIST, "kelm Netlink: Error registering netdev notifier"},
        {service::thread, -EAGAIN, "kelm Netlink: Error starting kelm_vrf_cleanup task"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line);
        world w({.namespaces = {"red"}, .start = false});
        w.fail(c.failing, c.error);
        EXPECT_EQ(w.start(), c.error);
        EXPECT_EQ(lines(w), strings{c.line});
        w.create_namespace("blue"); // nobody is told
        EXPECT_EQ(w.memory_in_use(), 0U);
        ASSERT_EQ(w.start(), 0);
        EXPECT_TRUE(has_vrf(w.open_agent(w.find("blue"))));
    }
}

TEST(vrf, is_undone_when_a_step_of_its_creation_fails)
{
    const struct {
        service failing;
        std::uint64_t nth;
        strings log;
    } cases[] = {
        {service::allocation, 1, {}},
        {service::netlink_socket, 1, {"kelm Netlink: Failed to register netlink protocol"}},
        {service::udp_socket,
         1,
         {"kelm Rx: Failed creating Rx socket of type 0 -105",
          "kelm Rx: Failed to initialize rx socket type 0"}},
        {service::udp_socket,
         5,
         {"kelm Rx: Failed creating Rx socket of type 4 -105",
          "kelm Rx: Failed to initialize rx socket type 4"}},
        {service::bind,
         3,
         {"kelm Rx: Failed to bind Rx socket type 2 -105",
          "kelm Rx: Failed to initialize rx socket type 2"}},
        {service::raw_socket,
         1,
         {"kelm Tx: Failed to create Tx socket of type 0, err -105",
          "kelm Tx: Failed to initialize tx socket type 0"}},
        {service::packet_socket,
         1,
         {"kelm Tx: Failed to create Tx socket of type 1, err -105",
          "kelm Tx: Failed to initialize tx socket type 1"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << static_cast<int>(c.failing) << ", use " << c.nth);
        world w;
        const std::size_t memory = w.memory_in_use();
        w.fail(c.failing, -ENOBUFS, c.nth);
        net &red = w.create_namespace("red");
        EXPECT_EQ(w.failed(c.failing), 1U);
        strings expected = c.log;
        expected.emplace_back("kelm Netlink: Unable to create vrf");
        EXPECT_EQ(lines(w), expected);
        EXPECT_EQ(red.sockets, 0);
        EXPECT_EQ(w.refcount(red), 1);
        EXPECT_EQ(w.memory_in_use(), memory);
        EXPECT_FALSE(has_vrf(w.open_agent(red)));
        EXPECT_TRUE(has_vrf(w.open_agent(w.initial())));
        EXPECT_TRUE(has_vrf(w.open_agent(w.create_namespace("blue"))));
    }
}

TEST(vrf, comes_with_lo_and_no_other_device)
{
    world w;
    ASSERT_EQ(set_debug_level(w.open_agent(w.initial()), 2), 0);
    w.clear_log();
    for (const char *device : {"lo0", "loo", "l", "LO", "eth0", ""})
        w.add_device(w.initial(), device, 17);
    w.remove_device(w.initial(), 17);
    EXPECT_EQ(lines(w), strings{});
    w.create_namespace("red");
    ASSERT_EQ(w.log().size(), 2U);
    EXPECT_EQ(w.log()[0].text.find("kelm Netlink: Received netdev type 5 for dev lo(1) namespace"),
              0U);
    EXPECT_EQ(w.logged("kelm Netlink: Created vrf"), 1U);
}

TEST(vrf, that_outlives_its_lo_is_warned_of_and_left_alone)
{
    world w({.namespaces = {"red"}});
    agent &a = w.open_agent(w.find("red"));
    ASSERT_EQ(set_session(a, 5), 0);
    w.expect_warning("Found Vrf");
    w.remove_device(w.find("red"), 1);
    EXPECT_TRUE(rx_stats(a, 5));

    // Not created again, and no harm done, when the device comes back.
    w.add_device(w.find("red"), "lo", 1);
    EXPECT_TRUE(rx_stats(a, 5));
}

TEST(vrf, goes_within_25_ticks_once_only_its_sockets_hold_the_namespace)
{
    world w({.namespaces = {"red"}});
    net &red = w.find("red");
    const std::size_t memory = w.memory_in_use();
    agent &a = w.open_agent(red);
    ASSERT_EQ(set_debug_level(a, 2), 0);
    w.abandon(red);
    w.advance(10 * CLEANUP_PERIOD);
    EXPECT_TRUE(has_vrf(a)); // whose socket holds the namespace

    a.close();
    w.clear_log();
    w.advance(CLEANUP_PERIOD);
    EXPECT_FALSE(w.alive(red));
    EXPECT_LT(w.memory_in_use(), memory);
    EXPECT_EQ(w.logged("kelm Netlink: Removing vrf"), 1U);
    EXPECT_EQ(w.logged("kelm Netlink: Destroyed vrf"), 1U);
    EXPECT_EQ(w.logged("type 6 for dev lo(1)"), 1U);
}

TEST(vrf, goes_with_everything_that_runs_in_it)
{
    world w({.namespaces = {"red"}});
    net &red = w.find("red");
    agent &ours = w.open_agent(w.initial(), {.groups = CONTROL | NOTIFICATION});
    agent &theirs = w.open_agent(red);
    ASSERT_EQ(path_ready(ours), 0);
    ASSERT_EQ(set_packet(ours, 1), 0);
    const std::size_t timers = w.timers();

    // A packet of red is linked by a session of the initial namespace, and the other way round.
    ASSERT_EQ(set_packet(theirs, 2), 0);
    kelm_msg_rx_set_session session{};
    session.flags = KELM_RX_TIMER_ACTIVE;
    session.latch_diagnostic = BFD_DIAG_CTRL_TIMEOUT;
    session.latch_tx_packets[0] = 1;
    session.latch_tx_packets[1] = 2;
    ASSERT_EQ(set_session(ours, 3, session), 0);
    ASSERT_EQ(set_session(theirs, 4, session), 0);
    ASSERT_TRUE(receive(w, red, 4));
    w.advance(100);

    theirs.close();
    w.abandon(red);
    w.advance(CLEANUP_PERIOD);
    EXPECT_FALSE(w.alive(red));
    EXPECT_EQ(w.timers(), timers + 2); // session 3's, and dead packet 2's, which comes to nothing
    w.take_frames();
    w.advance(5000);
    EXPECT_EQ(w.timers(), timers);
    for (const frame &each : w.frames())
        EXPECT_EQ(each.netns, &w.initial());
    EXPECT_EQ(tx_stats(ours, 1)->num_latches, 1U); // by session 3 alone
    ASSERT_EQ(delete_session(ours, 3), 0);         // the last to know packet 2
}

TEST(vrf, that_a_dump_visits_is_unlinked_and_lives_until_the_dump_lets_go)
{
    world w({.namespaces = {"red"}});
    net &red = w.find("red");
    agent &a = w.open_agent(w.initial());
    ASSERT_EQ(set_session(a, 1), 0);
    {
        agent &theirs = w.open_agent(red);
        for (std::uint32_t discriminator = 1; discriminator <= 200; ++discriminator)
            ASSERT_EQ(set_packet(theirs, discriminator), 0);
        theirs.close();
    }
    ASSERT_EQ(a.send(make_message(KELM_MSG_GET_STATS, NLM_F_REQUEST, 7,
                                  stats_request(0, KELM_STATS_ALL_VRFS))),
              0);
    w.abandon(red);
    w.advance(4 * CLEANUP_PERIOD);
    EXPECT_TRUE(w.alive(red));

    // It is in no list any more: neither a request nor the dump itself gets from it to others.
    agent &late = w.open_agent(red);
    EXPECT_EQ(set_packet(late, 1), -ENODEV);
    late.close();
    std::vector<message> messages;
    while (a.queued() != 0) {
        for (const message &m : a.read_messages())
            messages.push_back(m);
    }
    EXPECT_EQ(bodies<kelm_msg_tx_stats>(messages, KELM_MSG_TX_STATS).size(), 200U);
    EXPECT_EQ(name(messages.back()), "done 0");
    EXPECT_TRUE(bodies<kelm_msg_rx_stats>(messages, KELM_MSG_RX_STATS).empty());
    w.advance(CLEANUP_PERIOD);
    EXPECT_FALSE(w.alive(red));
}

TEST(vrf, can_come_and_go_for_ever)
{
    world w;
    agent &ours = w.open_agent(w.initial());
    ASSERT_EQ(path_ready(ours), 0);
    const std::size_t memory = w.memory_in_use();
    for (int round = 0; round < 100; ++round) {
        net &ns = w.create_namespace("ns" + std::to_string(round));
        agent &a = w.open_agent(ns);
        kelm_msg_rx_set_session session{};
        session.flags = KELM_RX_TIMER_ACTIVE;
        session.latch_tx_packets[0] = 5;
        ASSERT_EQ(set_packet(a, 5), 0);
        ASSERT_EQ(set_session(a, 5, session), 0);
        ASSERT_TRUE(receive(w, ns, 5));
        a.close();
        w.abandon(ns);
        w.advance(static_cast<std::uint64_t>(round) % 40);
    }
    w.advance(1000);
    EXPECT_EQ(w.memory_in_use(), memory);
    EXPECT_EQ(w.timers(), 0U);
}

// Sessions and packets with their timers, latches across namespaces, periodic statistics, and a
// dump that nobody reads to its end.
void set_up_everything(world &w)
{
    for (const char *ns : {"initial", "red"}) {
        agent &a = w.open_agent(w.find(ns), {.groups = CONTROL | NOTIFICATION});
        ASSERT_EQ(path_ready(a), 0);
        for (std::uint32_t discriminator = 1; discriminator <= 200; ++discriminator)
            ASSERT_EQ(set_packet(a, discriminator), 0);
        kelm_msg_rx_set_session session{};
        session.flags = KELM_RX_TIMER_ACTIVE;
        session.latch_tx_packets[0] = 200;
        ASSERT_EQ(set_session(a, 300, session), 0);
        ASSERT_TRUE(receive(w, w.find(ns), 300));
        ASSERT_EQ(set_interval(a, 1), 0);
        ASSERT_EQ(set_debug_level(a, 2), 0);
        ASSERT_EQ(a.send(make_message(KELM_MSG_GET_STATS, NLM_F_REQUEST, 7,
                                      stats_request(0, KELM_STATS_ALL_VRFS))),
                  0);
    }
    w.advance(100);
}

TEST(stop, leaves_nothing_of_all_that_runs)
{
    world w({.namespaces = {"red"}});
    set_up_everything(w);
    ASSERT_GT(w.timers(), 400U);
    w.stop(); // looks for leaks
    EXPECT_EQ(w.timers(), 0U);
    EXPECT_EQ(w.memory_in_use(), 0U);
    EXPECT_FALSE(receive(w, 1));

    // What is module-wide starts over, too: debug level, path, statistics.
    ASSERT_EQ(w.start(), 0);
    w.clear_log();
    w.take_frames();
    agent &a = w.open_agent(w.initial(), {.groups = CONTROL});
    ASSERT_EQ(set_packet(a, 1), 0);
    EXPECT_EQ(module_stats(a).seq_num, 1U);
    w.advance(3000);
    EXPECT_EQ(lines(w), strings{});
    EXPECT_TRUE(w.frames().empty());
    EXPECT_EQ(a.queued(), 0U);
    ASSERT_EQ(set_session(a, 300), 0);
    EXPECT_TRUE(receive(w, 300)); // the first packet
    EXPECT_EQ(w.frames().size(), 1U);
}

TEST(stop, bears_the_devices_leaving_while_it_unregisters)
{
    world w({.namespaces = {"red"}, .devices_leave_at_stop = true});
    set_up_everything(w);
    w.expect_warning("Found Vrf");
    w.expect_warning("Found Vrf");
}

} // namespace
