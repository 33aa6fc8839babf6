// SPDX-License-Identifier: GPL-2.0
//
// What the engine does for its agents, done again with the first, second, third ... use of each
// service of the platform failing, and with all from there on failing, until nothing fails any
// more. Whatever the outcome for the agent: nothing leaks, no rule of the platform is broken, no
// invariant warns, and afterwards the engine is as good as new.
#include <cerrno>

#include "engine_fixture.h"

namespace
{

using namespace sim;

struct stage {
    void start()
    {
        if (!running)
            running = w.start() == 0;
    }

    world w{{.namespaces = {"red"}, .start = false}};
    bool running = false;
    std::vector<std::string> namespaces = {"initial", "red"};
    agent &ours = w.open_agent(w.initial(), {.groups = control_group | notification_group});
    agent &theirs = w.open_agent(w.find("red"), {.groups = control_group});
};

struct scenario {
    const char *name;
    void (*run)(stage &s);
    void (*prepare)(stage &s) = nullptr;
    std::uint64_t ticks = 0; // that pass afterwards
};

const rx watched_session{.latch = {1, 7}}; // 7 is the other namespace's

// What most scenarios find: packets and sessions in both namespaces, not yet sent or received.
void furnish(stage &s)
{
    s.start();
    ASSERT_EQ(set_debug_level(s.ours, 3), 0);
    ASSERT_EQ(set_packet(s.ours, 1), 0);
    ASSERT_EQ(set_packet(s.ours, 33), 0);
    ASSERT_EQ(set_packet(s.theirs, 7), 0);
    ASSERT_EQ(set_session(s.ours, 5, watched_session), 0);
    ASSERT_EQ(set_session(s.ours, 37), 0);
    ASSERT_EQ(set_session(s.theirs, 5, watched_session), 0);
}

void furnish_with(stage &s, std::uint32_t number)
{
    furnish(s);
    for (std::uint32_t discriminator = 100; discriminator < 100 + number; ++discriminator) {
        ASSERT_EQ(set_packet(s.ours, discriminator), 0);
        ASSERT_EQ(set_session(s.theirs, discriminator), 0);
    }
}

// Several datagrams of a dump, of the periodic statistics.
void fill_dumps(stage &s)
{
    furnish_with(s, 100);
}

void fill_broadcasts(stage &s)
{
    furnish_with(s, 12);
}

void send_and_receive(stage &s)
{
    furnish(s);
    ASSERT_EQ(path_ready(s.ours), 0);
    ASSERT_TRUE(receive(s.w, 5));
    ASSERT_TRUE(receive(s.w, s.w.find("red"), 5));
    s.w.advance(500);
}

void drain(agent &a)
{
    while (a.queued() != 0)
        a.read_messages();
}

// Starts a dump and reads it as far as it goes: while memory is short there is no end of it.
void start_dump(agent &a, std::uint16_t type, const bytes &body, int datagrams = 20)
{
    a.send(make_message(type, NLM_F_REQUEST, 1, body));
    for (; datagrams > 0 && a.read(); --datagrams) {
    }
}

void arrive(stage &s, const control_packet &packet, buffer_form form)
{
    datagram frame = arriving(packet);
    frame.form = form;
    s.w.deliver(s.w.initial(), frame);
}

const scenario scenarios[] = {
    {"start", [](stage &s) { s.start(); }},
    {"namespace created",
     [](stage &s) {
         s.namespaces.emplace_back("green");
         set_packet(s.w.open_agent(s.w.create_namespace("green")), 1);
     },
     furnish},
    {"namespace gone",
     [](stage &s) {
         s.theirs.close();
         s.w.abandon(s.w.find("red"));
     },
     send_and_receive, 1000},
    {"packets set, replaced, sent out of band and deleted",
     [](stage &s) {
         set_packet(s.ours, 2);
         set(s.ours, 1, authenticated(BFD_AUTH_METICULOUS_SHA1), tx{.latch_period = 1'000'000});
         set_packet(s.theirs, 7, tx{.flags = KELM_TX_SEND_OOB});
         delete_packet(s.ours, 33);
     },
     send_and_receive, 1000},
    {"packet set, path ready",
     [](stage &s) {
         set_packet(s.ours, 2);
         path_ready(s.ours);
     },
     furnish, 500},
    {"sessions set, reconfigured and deleted",
     [](stage &s) {
         set_session(s.ours, 6, watched_session);
         set_session(s.ours, 5, rx{.latch = {1, 7, 99}}); // 99 does not exist
         set_session(s.ours, 5, rx{.latch = {1, 7, 33}});
         delete_session(s.theirs, 5);
     },
     send_and_receive},
    {"frames passed up",
     [](stage &s) {
         for (const buffer_form form :
              {buffer_form::linear, buffer_form::cloned, buffer_form::fragmented}) {
             arrive(s, {.your_discriminator = 5}, form);
             arrive(s, {.your_discriminator = 5, .flags = BFD_FLAG_POLL}, form);
             arrive(s, {.your_discriminator = 999}, form);
             arrive(s, {.your_discriminator = 0, .state = BFD_STATE_DOWN}, form);
         }
     },
     furnish},
    {"timeout", [](stage &) {}, send_and_receive, 2500},
    {"statistics of all",
     [](stage &s) {
         start_dump(s.ours, KELM_MSG_GET_STATS,
                    stats_request(0, KELM_STATS_ALL_VRFS | KELM_STATS_MODULE | KELM_STATS_CLEAR));
     },
     fill_dumps},
    {"agent gone in mid-dump",
     [](stage &s) {
         start_dump(s.theirs, KELM_MSG_GET_STATS, stats_request(0, KELM_STATS_ALL_VRFS), 1);
         s.theirs.close();
     },
     fill_dumps},
    {"sync dump", [](stage &s) { start_dump(s.theirs, KELM_MSG_SYNC, bytes(8)); }, fill_dumps},
    {"mark and sweep",
     [](stage &s) {
         mark_or_sweep(s.ours, KELM_SYNC_MARK);
         set_packet(s.ours, 2);
         mark_or_sweep(s.ours, KELM_SYNC_SWEEP);
     },
     send_and_receive, 1000},
    {"periodic statistics", [](stage &s) { set_interval(s.ours, 1); }, fill_broadcasts, 1000},
    {"debug levels, statistics of one session",
     [](stage &s) {
         set_debug_level(s.ours, 3, 5);
         set_debug_level(s.ours, 0, 5);
         for (const std::uint32_t discriminator : {1U, 5U})
             ask(s.ours, KELM_MSG_GET_STATS, stats_request(discriminator, 0));
     },
     furnish},
};

const struct fault {
    const char *name;
    service which;
    int result;
} faults[] = {
    {"allocation", service::allocation, -ENOMEM},
    {"send", service::send, -ENOBUFS},
    {"send of a part", service::send, 20},
    {"UDP socket", service::udp_socket, -EMFILE},
    {"raw socket", service::raw_socket, -EMFILE},
    {"packet socket", service::packet_socket, -EMFILE},
    {"bind", service::bind, -EADDRINUSE},
    {"netlink socket", service::netlink_socket, -1},
    {"notifier", service::notifier, -ENOMEM},
    {"thread", service::thread, -EAGAIN},
    {"reallocation of a buffer", service::skb_reallocation, -ENOMEM},
};

// Whatever a vrf still holds can be deleted.
void empty(agent &a)
{
    drain(a);
    const dump_result all = sync_dump(a);
    EXPECT_TRUE(all.error == 0 || all.error == -ECONNREFUSED); // without a vrf
    for (const auto &m : bodies<kelm_msg_rx_sync>(all.messages, KELM_MSG_RX_SYNC))
        EXPECT_EQ(delete_session(a, m.header.discriminator), 0);
    for (const auto &m : bodies<kelm_msg_tx_sync>(all.messages, KELM_MSG_TX_SYNC))
        EXPECT_EQ(delete_packet(a, m.header.discriminator), 0);
    EXPECT_TRUE(get_stats(a, 0, 0).messages.empty());
}

// A session's whole life, in a namespace of its own.
void live(world &w, agent &control)
{
    net &ns = w.create_namespace("afterwards");
    agent &a = w.open_agent(ns, {.groups = control_group | notification_group});
    ASSERT_EQ(path_ready(a), 0);
    ASSERT_EQ(set_packet(a, 1), 0);
    ASSERT_EQ(set_session(a, 5, rx{.latch = {1}}), 0);
    ASSERT_TRUE(receive(w, ns, 5));
    w.take_frames();
    w.advance(2000);
    EXPECT_EQ(names(a.read_messages()), (std::vector<std::string>{"packet_change 5", "failure 5"}));
    EXPECT_FALSE(w.take_frames().empty());
    EXPECT_GE(tx_stats(a, 1)->num_sent, 2U);
    EXPECT_EQ(rx_stats(a, 5)->num_timeout, 1U);
    EXPECT_EQ(get_stats(control, 0, KELM_STATS_ALL_VRFS).error, 0);
    empty(a);
}

void check_afterwards(stage &s)
{
    s.start();
    ASSERT_TRUE(s.running);
    agent &control = s.w.open_agent(s.w.create_namespace("control"));
    ASSERT_EQ(set_interval(control, 0), 0);
    for (const std::string &ns : s.namespaces) {
        if (s.w.alive(s.w.find(ns)))
            empty(s.w.open_agent(s.w.find(ns)));
    }
    live(s.w, control);
    s.w.advance(3000);
    EXPECT_EQ(s.w.timers(), 0U);
}

// Runs a scenario with the nth use of a service failing, and so many more. Whether one failed.
bool run_with_fault(const scenario &played, const fault &f, std::uint64_t nth, std::uint64_t times)
{
    SCOPED_TRACE(testing::Message() << played.name << ": " << f.name << ' ' << nth << " fails"
                                    << (times > 1 ? ", and all from then on" : ""));
    stage s;
    if (played.prepare != nullptr)
        played.prepare(s);
    s.w.fail(f.which, f.result, nth, times);
    played.run(s);
    s.w.advance(played.ticks);
    const bool failed = s.w.failed(f.which) != 0;
    s.w.fail(f.which, 0, 1, 0);
    drain(s.ours);
    drain(s.theirs);
    check_afterwards(s);
    return failed;
}

class fault_sweep : public testing::TestWithParam<scenario>
{
};

TEST_P(fault_sweep, leaves_an_engine_as_good_as_new)
{
    constexpr std::uint64_t limit = 500;
    std::uint64_t faults_met = 0;
    for (const fault &f : faults) {
        for (const std::uint64_t times : {std::uint64_t{1}, fault_plan::always}) {
            std::uint64_t nth = 1;
            while (nth < limit && !HasFailure() && run_with_fault(GetParam(), f, nth, times))
                ++nth;
            ASSERT_LT(nth, limit) << f.name;
            faults_met += nth - 1;
        }
    }
    EXPECT_GT(faults_met, 0U);
}

INSTANTIATE_TEST_SUITE_P(all, fault_sweep, testing::ValuesIn(scenarios),
                         [](const testing::TestParamInfo<scenario> &param) {
                             std::string name = param.param.name;
                             std::ranges::replace_if(
                                 name, [](char c) { return std::isalnum(c) == 0; }, '_');
                             return name;
                         });

} // namespace
