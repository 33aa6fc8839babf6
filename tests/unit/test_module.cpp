// SPDX-License-Identifier: GPL-2.0
//
// The module's start and stop, and its vrfs: they come and go with the network namespaces.
#include <algorithm>
#include <cerrno>

#include "engine_fixture.h"
#include "platform/sim/net.h"

namespace
{

using namespace sim;

constexpr std::uint64_t cleanup_period = 25; // ticks

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

void start_dump(agent &a)
{
    const bytes request = stats_request(0, KELM_STATS_ALL_VRFS);
    EXPECT_EQ(a.send(make_message(KELM_MSG_GET_STATS, NLM_F_REQUEST, 7, request)), 0);
}

TEST(start, fails_as_a_whole_when_notifier_or_thread_fails)
{
    for (const service failing : {service::notifier, service::thread}) {
        world w({.start = false});
        w.fail(failing, -EAGAIN);
        EXPECT_EQ(w.start(), -EAGAIN);
        EXPECT_EQ(w.memory_in_use(), 0U);
        EXPECT_EQ(w.start(), 0);
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
    net &red = w.create_namespace("red");
    EXPECT_EQ(w.log().size(), 2U);
    EXPECT_EQ(w.logged("kelm Netlink: Received netdev type 5 for dev lo(1) namespace"), 1U);
    EXPECT_EQ(w.logged("kelm Netlink: Created vrf"), 1U);

    // One that outlives its device is warned of and left alone, also when the device comes back.
    agent &a = w.open_agent(red);
    ASSERT_EQ(set_session(a, 5), 0);
    w.expect_warning("Found Vrf");
    w.remove_device(red, 1);
    EXPECT_TRUE(rx_stats(a, 5));
    w.add_device(red, "lo", 1);
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
    w.advance(10 * cleanup_period);
    EXPECT_TRUE(has_vrf(a)); // whose socket holds the namespace

    a.close();
    w.clear_log();
    w.advance(cleanup_period);
    EXPECT_FALSE(w.alive(red));
    EXPECT_LT(w.memory_in_use(), memory);
    EXPECT_EQ(w.logged("kelm Netlink: Removing vrf"), 1U);
    EXPECT_EQ(w.logged("kelm Netlink: Destroyed vrf"), 1U);
    EXPECT_EQ(w.logged("type 6 for dev lo(1)"), 1U);

    // At whatever time between two looks of the cleanup thread its last user leaves.
    for (std::uint64_t phase = 0; phase <= cleanup_period; ++phase) {
        net &ns = w.create_namespace("ns" + std::to_string(phase));
        w.abandon(ns);
        w.advance(cleanup_period);
        EXPECT_FALSE(w.alive(ns)) << phase;
        w.advance(2);
    }
}

TEST(vrf, that_a_dump_visits_is_unlinked_and_lives_until_the_dump_lets_go)
{
    world w({.namespaces = {"red"}});
    net &red = w.find("red");
    agent &a = w.open_agent(w.initial());
    ASSERT_EQ(set_session(a, 1), 0);
    agent &theirs = w.open_agent(red);
    for (std::uint32_t discriminator = 1; discriminator <= 200; ++discriminator)
        ASSERT_EQ(set_packet(theirs, discriminator), 0);
    theirs.close();
    start_dump(a);
    w.abandon(red);
    w.advance(4 * cleanup_period);
    EXPECT_TRUE(w.alive(red));

    // It is in no list any more: neither a request nor the dump itself gets from it to others.
    agent &late = w.open_agent(red);
    EXPECT_EQ(set_packet(late, 1), -ENODEV);
    late.close();
    strings told;
    while (a.queued() != 0)
        std::ranges::copy(names(a.read_messages()), std::back_inserter(told));
    EXPECT_EQ(told.size(), 201U);
    EXPECT_EQ(told[199].substr(0, 8), "tx_stats");
    EXPECT_EQ(told[200], "done 0");
    w.advance(cleanup_period);
    EXPECT_FALSE(w.alive(red));
}

// Sessions and packets with their timers, latches across namespaces, periodic statistics, and a
// dump that nobody reads to its end.
void set_up_everything(world &w)
{
    for (const char *ns : {"initial", "red"}) {
        agent &a = w.open_agent(w.find(ns), {.groups = control_group | notification_group});
        ASSERT_EQ(path_ready(a), 0);
        for (std::uint32_t discriminator = 1; discriminator <= 200; ++discriminator)
            ASSERT_EQ(set_packet(a, discriminator), 0);
        ASSERT_EQ(set_session(a, 300, rx{.latch = {200}}), 0);
        ASSERT_TRUE(receive(w, w.find(ns), 300));
        ASSERT_EQ(set_interval(a, 1), 0);
        ASSERT_EQ(set_debug_level(a, 2), 0);
        start_dump(a);
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
    agent &a = w.open_agent(w.initial(), {.groups = control_group});
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
