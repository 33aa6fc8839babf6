// SPDX-License-Identifier: GPL-2.0
//
// Requests on their way to their handlers: which are taken from whom, and what becomes of those
// that are not what they should be.
#include <cerrno>

#include "engine_fixture.h"
#include "kelm/log.h"

namespace
{

using namespace sim;

constexpr std::uint32_t own_disc = 5;
constexpr int dump_type = unanswered; // is not acknowledged

// A world in which requests find something to change: a packet that is being sent, a session that
// has passed up a frame and has its timer running, periodic statistics.
struct busy_world {
    explicit busy_world(std::uint64_t seed = 1) : w({.seed = seed})
    {
        EXPECT_EQ(path_ready(a), 0);
        EXPECT_EQ(set_packet(a, own_disc), 0);
        EXPECT_EQ(set_session(a, own_disc, rx{.multiplier = 200, .latch = {own_disc}}), 0);
        EXPECT_TRUE(receive(w, own_disc));
        EXPECT_EQ(set_interval(a, 1), 0);
    }

    // What there is, and what it does: everything that a request could change.
    strings state()
    {
        strings result = names(get_stats(a, 0, KELM_STATS_MODULE).messages);
        for (const message &m : sync_dump(a).messages)
            result.emplace_back(m.body.begin(), m.body.end());
        w.take_frames();
        observer.read_messages();
        w.advance(1000); // three transmissions and a periodic run
        for (const frame &each : w.take_frames())
            result.emplace_back(each.data.begin(), each.data.end());
        for (const std::string &reported : names(observer.read_messages()))
            result.push_back(reported);
        result.push_back(should_log_global(2) ? "verbose" : "silent");
        result.push_back(std::to_string(w.timers()) + " timers");
        return result;
    }

    world w;
    agent &a = w.open_agent(w.initial());
    agent &observer = w.open_agent(w.initial(), {.groups = control_group});
};

struct valid_request {
    std::uint16_t type;
    bytes body;
    std::size_t tail_len_at; // offset of the length of the variable part; 0 without one
    int result;
};

// One request of each type, every one of which changes or answers something.
std::vector<valid_request> valid_requests()
{
    return {
        {KELM_MSG_TX_SET_PACKET, set_request(own_disc, {}, tx{.period = 100'000}),
         offsetof(kelm_msg_tx_set_packet, packet_len), 0},
        {KELM_MSG_TX_DELETE_PACKET, to_bytes(kelm_msg_tx_delete_packet{{own_disc}}), 0, 0},
        {KELM_MSG_RX_SET_SESSION, set_request(own_disc, rx{.period = 100'000}, bytes(16)),
         offsetof(kelm_msg_rx_set_session, failure_packet_len), 0},
        {KELM_MSG_RX_DELETE_SESSION, to_bytes(kelm_msg_rx_delete_session{{own_disc}}), 0, 0},
        {KELM_MSG_GET_STATS, stats_request(0, KELM_STATS_MODULE), 0, dump_type},
        {KELM_MSG_SYNC, to_bytes(kelm_msg_sync{{0}, KELM_SYNC_SWEEP}), 0, 0},
        {KELM_MSG_SET_DEBUG_LEVEL, to_bytes(kelm_msg_set_debug_level{{0}, 0, 3, {}}), 0, 0},
        {KELM_MSG_TX_PATH_READY, to_bytes(kelm_msg_tx_path_ready{{0}}), 0, 0},
        {KELM_MSG_SET_SESSION_STATS_INTERVAL,
         to_bytes(kelm_msg_set_session_stats_interval{{0}, 7, {}}), 0, 0},
    };
}

// A message with exactly this body, and more of the datagram behind it.
bytes with_something_behind(std::uint16_t type, std::span<const std::uint8_t> body)
{
    bytes datagram = make_message(type, NLM_F_REQUEST | NLM_F_ACK, 100, body);
    append(datagram, bytes(1000, 0xff)); // no message, but there to be misread
    return datagram;
}

int acknowledged(agent &a, std::span<const std::uint8_t> datagram)
{
    EXPECT_EQ(a.send(datagram), 0);
    const std::vector<message> answers = a.read_messages();
    return answers.empty() ? unanswered : read_as<int>(answers.back().body);
}

TEST(dispatch, takes_each_type_from_those_who_may_send_it)
{
    // With a body of zeroes: where it is no good it shows that the handler was reached.
    const struct {
        std::uint16_t type;
        int privileged;
        int unprivileged;
        int in_strict_mode; // unprivileged
    } cases[] = {
        {KELM_MSG_TX_SET_PACKET, -EINVAL, -EPERM, -EPERM},
        {KELM_MSG_TX_DELETE_PACKET, -EINVAL, -EPERM, -EPERM},
        {KELM_MSG_RX_SET_SESSION, -EINVAL, -EPERM, -EPERM},
        {KELM_MSG_RX_DELETE_SESSION, -EINVAL, -EPERM, -EPERM},
        {KELM_MSG_GET_STATS, dump_type, dump_type, dump_type},
        {KELM_MSG_SYNC, dump_type, dump_type, -EPERM},
        {KELM_MSG_SET_DEBUG_LEVEL, 0, -EPERM, -EPERM},
        {KELM_MSG_TX_PATH_READY, 0, 0, -EPERM},
        {KELM_MSG_SET_SESSION_STATS_INTERVAL, 0, -EPERM, -EPERM},
        {32, -ENOMSG, -ENOMSG, -ENOMSG},
        {0xffff, -ENOMSG, -ENOMSG, -ENOMSG},
    };
    world w;
    agent &privileged = w.open_agent(w.initial());
    agent &unprivileged = w.open_agent(w.initial(), {.privileged = false});
    const bytes zeroes(200);
    for (const auto &c : cases) {
        EXPECT_EQ(ask(privileged, c.type, zeroes), c.privileged) << "type " << c.type;
        EXPECT_EQ(ask(unprivileged, c.type, zeroes), c.unprivileged) << "type " << c.type;
        privileged.read_messages();
        unprivileged.read_messages();
        const strict_mode strict;
        EXPECT_EQ(ask(privileged, c.type, zeroes), c.privileged) << "type " << c.type;
        EXPECT_EQ(ask(unprivileged, c.type, zeroes), c.in_strict_mode) << "type " << c.type;
        privileged.read_messages();
        unprivileged.read_messages();
    }
    for (const std::uint16_t sent_by_the_module :
         {KELM_MSG_TX_STATS, KELM_MSG_TX_SYNC, KELM_MSG_RX_STATS, KELM_MSG_RX_PACKET_CHANGE,
          KELM_MSG_RX_SYNC, KELM_MSG_SESSION_FAILURE, KELM_MSG_MODULE_STATS})
        EXPECT_EQ(ask(privileged, sent_by_the_module, zeroes), -EPERM) << sent_by_the_module;
    // Mark and sweep are as free as the dump, clearing as free as reading.
    EXPECT_EQ(mark_or_sweep(unprivileged, KELM_SYNC_MARK | KELM_SYNC_SWEEP), 0);
    EXPECT_EQ(get_stats(unprivileged, 0, KELM_STATS_CLEAR | KELM_STATS_ALL_VRFS).error, 0);
    // In strict mode neither is, nor is a look at other namespaces, or a single session's level.
    const strict_mode strict;
    EXPECT_EQ(mark_or_sweep(unprivileged, KELM_SYNC_MARK), -EPERM);
    for (const std::uint32_t flag : {KELM_STATS_CLEAR, KELM_STATS_ALL_VRFS})
        EXPECT_EQ(get_stats(unprivileged, 0, flag).error, -EPERM) << flag;
    EXPECT_EQ(get_stats(unprivileged, 0, KELM_STATS_MODULE).error, 0);
    EXPECT_EQ(ask(unprivileged, KELM_MSG_SET_DEBUG_LEVEL,
                  to_bytes(kelm_msg_set_debug_level{{5}, 0, 1, {}})),
              -EPERM);
}

TEST(dispatch, refuses_messages_that_hold_less_than_they_should)
{
    for (const valid_request &request : valid_requests()) {
        SCOPED_TRACE(testing::Message() << "type " << request.type);
        busy_world busy;
        agent &a = busy.a;
        const strings before = busy.state();
        for (std::size_t len = 0; len < request.body.size(); ++len) {
            const auto body = std::span(request.body).first(len);
            ASSERT_EQ(acknowledged(a, with_something_behind(request.type, body)), -EINVAL) << len;
        }
        // Or announces more than it holds.
        for (const std::uint32_t more : {1U, 4U, 0x10000U, 0x7fffff00U, 0xffffff00U}) {
            if (request.tail_len_at == 0)
                break;
            bytes body = request.body;
            const auto tail_len = std::span(body).subspan(request.tail_len_at);
            const std::uint32_t announced = read_as<std::uint32_t>(tail_len) + more;
            std::memcpy(tail_len.data(), &announced, sizeof announced);
            ASSERT_EQ(acknowledged(a, with_something_behind(request.type, body)), -EINVAL) << more;
        }
        EXPECT_EQ(busy.state(), before);

        // Whole it is taken; overlong, too.
        bytes overlong = request.body;
        append(overlong, bytes(7, 0xff));
        EXPECT_EQ(ask(a, request.type, overlong), request.result);
        while (a.queued() != 0)
            a.read_messages();
        const strings after = busy.state();
        if (request.type != KELM_MSG_GET_STATS && request.type != KELM_MSG_TX_PATH_READY) {
            EXPECT_NE(after, before);
        }
    }
}

} // namespace
