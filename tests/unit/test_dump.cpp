// SPDX-License-Identifier: GPL-2.0
//
// Statistics requests, and the dumps of sessions and packets that stop when a datagram is full
// and go on later. Periodic statistics: when they come, what they hold, who gets them, and what
// stops them.
#include <algorithm>
#include <cerrno>
#include <set>

#include "engine_fixture.h"
#include "kelm/dump.h"
#include "kelm/netlink_stats.h"
#include "kelm/skb_ptr.h"
#include "platform/hosted/skbuff.h"
#include "platform/sim/random.h"

namespace
{

using namespace sim;

constexpr std::uint32_t clear = KELM_STATS_CLEAR;
constexpr std::uint32_t no_report = KELM_STATS_NO_REPORT;
constexpr std::uint32_t module_wide = KELM_STATS_MODULE;
constexpr std::uint32_t all_vrfs = KELM_STATS_ALL_VRFS;

TEST(get_stats, answers_each_request_with_what_it_asks_for)
{
    world w({.namespaces = {"red", "blue"}});
    agent &a = w.open_agent(w.initial());
    for (const std::uint32_t discriminator : {37U, 5U, 7U, 69U}) // three of them share a chain
        ASSERT_EQ(set_session(a, discriminator), 0);
    for (const std::uint32_t discriminator : {6U, 5U})
        ASSERT_EQ(set_packet(a, discriminator), 0);
    ASSERT_EQ(set_session(w.open_agent(w.find("red")), 5), 0);
    ASSERT_EQ(set_packet(w.open_agent(w.find("blue")), 9), 0);

    const struct {
        std::uint32_t discriminator;
        std::uint32_t flags;
        strings messages;
    } cases[] = {
        {5, 0, {"tx_stats 5", "rx_stats 5", "ack 0"}},
        {7, 0, {"rx_stats 7", "ack 0"}},
        {6, 0, {"tx_stats 6", "ack 0"}},
        {8, 0, {"ack -2"}},
        {9, 0, {"ack -2"}}, // of another vrf
        {5, clear, {"rx_stats 5", "tx_stats 5", "done 0"}},
        {69, clear, {"rx_stats 69", "done 0"}},
        {101, clear, {"done 0"}},
        {5, 0x80, {"rx_stats 5", "tx_stats 5", "done 0"}}, // unknown flags are flags
        {5, module_wide, {"rx_stats 5", "tx_stats 5", "module_stats", "done 0"}},
        {5,
         all_vrfs | module_wide,
         {"module_stats", "rx_stats 5", "module_stats", "rx_stats 5", "tx_stats 5", "module_stats",
          "done 0"}},
        {0,
         0,
         {"rx_stats 37", "rx_stats 5", "rx_stats 69", "rx_stats 7", "tx_stats 5", "tx_stats 6",
          "done 0"}},
        {0,
         all_vrfs,
         {"tx_stats 9", "rx_stats 5", "rx_stats 37", "rx_stats 5", "rx_stats 69", "rx_stats 7",
          "tx_stats 5", "tx_stats 6", "done 0"}},
        {0, no_report | module_wide, {"done 0"}},
        {0, no_report | clear | module_wide | all_vrfs, {"done 0"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "session " << c.discriminator << ", flags " << c.flags);
        ASSERT_EQ(a.send(make_message(KELM_MSG_GET_STATS, NLM_F_REQUEST | NLM_F_ACK, 4711,
                                      stats_request(c.discriminator, c.flags))),
                  0);
        std::vector<message> messages = a.read_messages();
        EXPECT_EQ(a.queued(), 0U);
        EXPECT_EQ(names(messages), c.messages);
        for (const message &m : messages) {
            EXPECT_EQ(m.header.nlmsg_seq, 4711U);
            EXPECT_EQ(m.header.nlmsg_pid, a.id());
            if (m.header.nlmsg_type >= KELM_MSG_MIN) {
                EXPECT_EQ(m.header.nlmsg_flags, 0U);
            }
        }
        for (const auto &m : bodies<kelm_msg_module_stats>(messages, KELM_MSG_MODULE_STATS)) {
            EXPECT_EQ(m.seq_num, 1U);
            EXPECT_EQ(m.unsolicited, 0U);
        }
    }
}

TEST(get_stats, reports_and_clears_the_counters_of_the_vrf)
{
    world w;
    agent &a = w.open_agent(w.initial());
    // Each is raised by another number.
    const std::pair<int, std::function<void()>> events[] = {
        {1, [&] { w.deliver(w.initial(), {.payload = bytes(3)}); }},
        {2, [&] { w.call_without_datagram(w.initial(), 3784); }},
        {3, [&] { receive(w, 99); }},
        {4,
         [&] {
             w.deliver(w.initial(), arriving({.your_discriminator = 0, .state = BFD_STATE_DOWN}));
         }},
        {5,
         [&] {
             EXPECT_EQ(set_session(a, 5, rx{}), 0);
             w.advance(1000);
         }},
        {6,
         [&] {
             w.fail(service::skb_reallocation, -ENOMEM);
             receive(w, 99);
         }},
        {9, [&] { EXPECT_EQ(set_interval(a, 1), 0); }}, // fails to be broadcast, and so does:
        {1, [&] { w.advance(1000); }},
        {7,
         [&] {
             w.fail(service::allocation, -1);
             w.advance(1000);
         }},
    };
    for (const auto &[times, event] : events)
        for (int i = 0; i < times; ++i)
            event();
    EXPECT_EQ(set_interval(a, 0), 0);

    const auto counters = [&] {
        const kelm_msg_module_stats s = module_stats(a);
        EXPECT_EQ(s.timestamp_secs * 1'000'000'000 + s.timestamp_nsecs,
                  static_cast<std::uint64_t>(w.wall_ns()));
        return std::vector{s.rfc_drops,
                           s.rx_packet_missing,
                           s.num_invalid_sessions,
                           s.num_passup_disc_0,
                           s.netlink_packet_change_fail,
                           s.netlink_failure_fail,
                           s.pskb_expand_fail,
                           s.session_stats_no_skb_fail,
                           s.session_stats_send_stats_fail,
                           s.session_stats_broadcast_fail};
    };
    // clear without module_wide leaves them, with no_report it clears them unread.
    ASSERT_EQ(get_stats(a, 0, clear).error, 0);
    EXPECT_EQ(counters(), (std::vector<std::uint64_t>{1, 2, 9, 4, 7, 5, 6, 7, 0, 10}));
    ASSERT_EQ(get_stats(a, 0, clear | no_report | module_wide).error, 0);
    EXPECT_EQ(counters(), std::vector<std::uint64_t>(10, 0));
}

TEST(get_stats, counts_a_reply_that_cannot_be_delivered)
{
    world w;
    agent &a = w.open_agent(w.initial(), {.queue_limit = 0});
    ASSERT_EQ(set_session(a, 5), unanswered);
    ASSERT_EQ(set_debug_level(a, 2), unanswered);
    const kelm_vrf *vrf = find_vrf(&w.initial()).get();
    ASSERT_EQ(a.send(make_message(KELM_MSG_GET_STATS, NLM_F_REQUEST, 1, stats_request(5, 0))), 0);
    EXPECT_EQ(w.logged("kelm Netlink: Error sending stats -11"), 1U);
    EXPECT_EQ(vrf->stats.netlink_stats_fail, 1);
    a.set_queue_limit(100);
    ASSERT_EQ(get_stats(a, 0, clear | module_wide).error, 0);
    EXPECT_EQ(vrf->stats.netlink_stats_fail, 0);
}

TEST(get_stats, ends_at_a_message_that_fits_into_no_datagram)
{
    world w;
    ASSERT_EQ(set_packet(w.open_agent(w.initial()), 1), 0);
    const vrf_ref vrf = find_vrf(&w.initial());
    dump_data data = {vrf_ref(vrf.get()), 0, 0};
    netlink_callback dump = {};
    dump.data = &data;
    const skb_ptr skb(alloc_skb(199, GFP_KERNEL));
    EXPECT_EQ(send_stats(skb.get(), &dump, false), 0);
    EXPECT_EQ(skb_len(skb.get()), 0U);
}

// The four walks over the tables, in datagrams of any size, while records come and go.
struct walk {
    dumpfn function;
    std::uint32_t discriminator;
    long bucket = 0;
    long chain_depth = 0;
    long table_seq = 0;

    // Fills one buffer; false when the walk is complete.
    bool go_on(kelm_vrf *vrf, std::uint64_t room, strings &told)
    {
        const skb_ptr skb(alloc_skb(static_cast<std::uint32_t>(room), GFP_KERNEL));
        const int result = function(vrf, skb.get(), {bucket, chain_depth, &table_seq},
                                    {11, 22, discriminator, 0, false});
        std::ranges::copy(names(parse_messages(hosted::skb_bytes(skb.get()))),
                          std::back_inserter(told));
        return result != 0;
    }
};

class walks : public testing::TestWithParam<std::uint64_t>
{
  protected:
    std::uint32_t any_discriminator()
    {
        // Few chains, and several records in each.
        return static_cast<std::uint32_t>(1 + random.below(4) + 32 * random.below(6));
    }

    walk any_walk()
    {
        constexpr dumpfn functions[] = {kelm_rx_get_stats, kelm_tx_get_stats, kelm_rx_sync,
                                        kelm_tx_sync};
        return {functions[random.below(4)], random.below(4) == 0 ? any_discriminator() : 0};
    }

    // What such a walk tells that has room for all.
    strings whole(const walk &like)
    {
        strings told;
        EXPECT_FALSE((walk{like.function, like.discriminator}.go_on(vrf.get(), 1 << 20, told)));
        return told;
    }

    // Returns whether something was deleted.
    bool change_something()
    {
        const std::uint32_t disc = any_discriminator();
        switch (random.below(5)) {
        case 0:
            EXPECT_EQ(set_session(a, disc), 0);
            return false;
        case 1:
            EXPECT_EQ(set_packet(a, disc), 0);
            return false;
        case 2:
            receive(w, disc);
            return false;
        case 3:
            return delete_session(a, disc) == 0;
        default:
            return delete_packet(a, disc) == 0;
        }
    }

    world w;
    agent &a = w.open_agent(w.initial());
    random_source random{GetParam()};
    vrf_ref vrf = find_vrf(&w.initial());
};

TEST_P(walks, tell_once_of_everything_that_stays)
{
    for (int i = 0; i < 50; ++i)
        change_something();
    for (int round = 0; round < 300 && !HasFailure(); ++round) {
        walk running = any_walk();
        const strings before = whole(running);
        std::set<std::string> stays(before.begin(), before.end());
        strings told;
        bool deleted = false; // which starts walks over
        while (running.go_on(vrf.get(), random.below(500), told)) {
            if (round % 2 != 0 && random.below(3) == 0) {
                deleted = change_something() || deleted;
                const strings now = whole(running);
                std::erase_if(stays, [&](const std::string &each) {
                    return std::ranges::find(now, each) == now.end();
                });
            }
        }
        if (round % 2 == 0) {
            EXPECT_EQ(told, before);
        }
        for (const std::string &each : stays) {
            const auto times = std::ranges::count(told, each);
            EXPECT_TRUE(times == 1 || (times > 1 && deleted)) << each << ": " << times;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(seeds, walks, testing::Range<std::uint64_t>(1, 9));

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
    agent &observer = w.open_agent(w.initial(), {.groups = control_group});
};

const strings one_run = {"module_stats", "module_stats"};

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
        EXPECT_EQ(received(), result == 0 ? one_run : strings{});
        for (int run = 0; run < 3; ++run) {
            w.pass(ticks - 1);
            w.run_timers();
            EXPECT_EQ(received(), strings{});
            w.pass(1);
            w.run_timers();
            EXPECT_EQ(received(), one_run);
        }
    }
    ASSERT_EQ(set_interval(a, 0), 0);
    EXPECT_EQ(received(), strings{});
    EXPECT_EQ(w.timers(), 0U);
}

TEST_F(periodic, holds_everything_of_every_vrf_the_newest_first)
{
    agent &theirs = w.open_agent(red, {.groups = control_group | notification_group});
    agent &other_group = w.open_agent(w.initial(), {.groups = notification_group});
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
    EXPECT_EQ(observer.queued(), 3U); // ten packets' statistics go into one
    while (const std::optional<bytes> datagram = observer.read())
        EXPECT_LE(datagram->size(), 2048U);
    ASSERT_EQ(set_interval(a, 1), 0);
    const strings all = received();
    EXPECT_EQ(all.size(), 30U);
    EXPECT_EQ(std::set(all.begin(), all.end()).size(), 29U); // the two vrfs' are alike
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
