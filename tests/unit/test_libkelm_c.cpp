// SPDX-License-Identifier: GPL-2.0
//
// The C interface: that it does what the C++ one does, and that no exception gets out of it.
// Packets and frames in it are compared in test_libkelm_abi.cpp.
#include <array>
#include <cerrno>
#include <memory>

#include "libkelm/libkelm.h"
#include "libkelm/request.h"
#include "libkelm_fake.h"

namespace
{

using namespace libkelm_fake;
using c_interface_and_kelmd = own_namespace;

struct closer {
    void operator()(kelm_client *client) const { kelm_client_close(client); }
    void operator()(kelm_dump *dump) const { kelm_dump_free(dump); }
};
using client_handle = std::unique_ptr<kelm_client, closer>;
using dump_handle = std::unique_ptr<kelm_dump, closer>;

client_handle open_client()
{
    kelm_client *client = nullptr;
    EXPECT_EQ(kelm_client_open(nullptr, &client), 0) << kelm_error_text();
    return client_handle(client);
}

struct outcome {
    int result = 1;
    int replies = 0;
    std::string text;
};

void complete(void *context, int result, kelm_dump *replies)
{
    auto &out = *static_cast<outcome *>(context);
    out.result = result;
    out.text = kelm_error_text();
    kelm_report report;
    while (kelm_dump_next(replies, &report) == 1)
        ++out.replies;
}

void run_until_idle(kelm_client *client)
{
    EXPECT_EQ(kelm_client_outstanding(client), 1U);
    while (kelm_client_outstanding(client) > 0) {
        pollfd waiting = {kelm_client_fd(client), kelm_client_poll_events(client), 0};
        EXPECT_GT(poll(&waiting, 1, kelm_client_timeout(client)), 0);
        EXPECT_EQ(kelm_client_progress(client), 0);
    }
    EXPECT_EQ(kelm_client_timeout(client), -1);
}

// What submit() is given is the body of kelm.h, which the blocking functions are made of, too.
TEST_F(c_interface_and_kelmd, requests_are_those_of_kelm_h)
{
    fake_daemon fake({.handle = [](const seen &request) {
        const nlmsghdr &to = request.header;
        if ((to.nlmsg_flags & NLM_F_ACK) == 0)
            return answers{reply(to, KELM_MSG_TX_SYNC, bytes_of(5U)), done(to)};
        return answers{ack(to, to.nlmsg_type == KELM_MSG_SET_DEBUG_LEVEL ? -ENOSR : 0)};
    }});
    const client_handle client = open_client();
    kelm_client *const c = client.get();
    kelm_dump *dump = nullptr;
    kelm_msg_tx_set_packet packet = {};
    packet.header.discriminator = 5;
    packet.packet_len = 99; // not looked at
    kelm_msg_rx_set_session session = {};
    session.header.discriminator = 6;
    session.failure_packet_len = 99; // not looked at
    const kelm::bytes blob = {1, 2, 3};
    const kelm_msg_header five = {5};
    const kelm_msg_sync plain = {};
    const kelm_msg_sync mark = {.header = {}, .flags = KELM_SYNC_MARK};
    const kelm_msg_sync sweep = {.header = {}, .flags = KELM_SYNC_SWEEP};
    const kelm_msg_get_stats stats = {.header = {7}, .flags = KELM_STATS_CLEAR};
    const kelm_msg_set_debug_level debug = {
        .header = {7}, .flags = 1, .debug_level = 3, .padding = {}};
    const kelm_msg_set_session_stats_interval interval = {
        .header = {0}, .interval = 10, .padding = {}};
    const struct {
        kelm::request request;
        const void *body;
        kelm::byte_view rest;
        std::function<int()> execute;
    } cases[] = {
        {kelm::set_packet(packet, blob), &packet, blob,
         [&, message = &packet] {
             return kelm_client_set_packet(c, message, blob.data(), blob.size());
         }},
        {kelm::delete_packet(5), &five, {}, [&] { return kelm_client_delete_packet(c, 5); }},
        {kelm::set_session(session, blob), &session, blob,
         [&, message = &session] {
             return kelm_client_set_session(c, message, blob.data(), blob.size());
         }},
        {kelm::set_session(session, kelm::failure_message(6)),
         &session,
         {},
         [&, message = &session] { return kelm_client_set_session(c, message, nullptr, 0); }},
        {kelm::delete_session(5), &five, {}, [&] { return kelm_client_delete_session(c, 5); }},
        {kelm::tx_path_ready(), &plain, {}, [&] { return kelm_client_tx_path_ready(c); }},
        {kelm::sync(KELM_SYNC_MARK), &mark, {}, [&] { return kelm_client_sync_mark(c); }},
        {kelm::sync(KELM_SYNC_SWEEP), &sweep, {}, [&] { return kelm_client_sync_sweep(c); }},
        {kelm::sync(0), &plain, {}, [&] { return kelm_client_sync_dump(c, &dump); }},
        {kelm::get_stats(7, KELM_STATS_CLEAR),
         &stats,
         {},
         [&] { return kelm_client_statistics(c, 7, KELM_STATS_CLEAR, &dump); }},
        {kelm::set_debug_level(7, 3, 1),
         &debug,
         {},
         [&] { return kelm_client_set_debug_level(c, 7, 3, 1); }},
        {kelm::set_stats_interval(10),
         &interval,
         {},
         [&] { return kelm_client_set_stats_interval(c, 10); }},
    };
    for (const auto &each : cases) {
        const kelm::request &wanted = each.request;
        SCOPED_TRACE(wanted.type);
        const int expected = wanted.type == KELM_MSG_SET_DEBUG_LEVEL ? -ENOSR : 0;
        EXPECT_EQ(each.execute(), expected);
        const dump_handle freed(std::exchange(dump, nullptr));
        outcome out;
        EXPECT_EQ(kelm_client_submit(c, wanted.type, each.body, each.rest.data(), each.rest.size(),
                                     complete, &out),
                  0);
        run_until_idle(c);
        EXPECT_EQ(out.result, expected);
        EXPECT_EQ(out.replies, freed == nullptr ? 0 : 1);
        if (expected != 0) {
            EXPECT_NE(out.text.find("clear some"), std::string::npos);
        }
        const std::vector<seen> requests = fake.requests();
        for (const auto sent : {requests.end() - 2, requests.end() - 1}) {
            EXPECT_EQ(sent->header.nlmsg_type, wanted.type);
            EXPECT_EQ(sent->body, wanted.body);
        }
    }
    EXPECT_EQ(kelm_client_submit(c, KELM_MSG_RX_SYNC, &plain, nullptr, 0, complete, nullptr),
              -EINVAL);
    EXPECT_EQ(kelm_client_subscribe(c, 3), 0);
    EXPECT_EQ(fake.groups(), (std::vector<std::uint32_t>{0, 3}));
}

TEST_F(c_interface_and_kelmd, failures_are_numbers_with_a_text)
{
    kelm_client *client = nullptr;
    EXPECT_EQ(kelm_client_open(nullptr, &client), -ECONNREFUSED);
    EXPECT_NE(std::string(kelm_error_text()).find("start kelmd"), std::string::npos);
    EXPECT_EQ(kelm_client_open("kelm-no-such-name", &client), -ENOENT);
    EXPECT_EQ(client, nullptr);
    {
        fake_daemon fake(
            {.handle = [](const seen &request) { return answers{ack(request.header, -ENOENT)}; },
             .allowed_groups = 0});
        const auto open = open_client();
        EXPECT_EQ(kelm_client_delete_session(open.get(), 6), -ENOENT);
        EXPECT_NE(std::string(kelm_error_text()).find("session 6"), std::string::npos);
        EXPECT_EQ(kelm_client_subscribe(open.get(), 3), -EPERM);
    }
    fake_daemon silent({.handle = [](const seen &) { return answers{}; }});
    const auto open = open_client();
    kelm_client_set_answer_timeout(open.get(), 1);
    EXPECT_EQ(kelm_client_tx_path_ready(open.get()), -ETIMEDOUT);
    kelm_client_close(nullptr);
    kelm_dump_free(nullptr);
}

// One of each kind, one that breaks its layout, one of another agent, and a loss.
TEST_F(c_interface_and_kelmd, what_kelm_tells_lies_as_in_kelm_h)
{
    const kelm::bytes failure = from_hex("06000000 aabb");
    const kelm::bytes stats(sizeof(kelm_msg_rx_stats), 1);
    const kelm::bytes short_stats = from_hex("05000000");
    const kelm::bytes foreign = from_hex("01");
    fake_daemon fake(
        {.before_bind_answer = {message(KELM_MSG_SESSION_FAILURE, 0, 0, failure) +
                                    message(KELM_MSG_RX_STATS, 0, 0, stats),
                                message(KELM_MSG_TX_STATS, 0, 0, short_stats),
                                message(1000, 0, 0, foreign), message(NLMSG_OVERRUN, 0, 0, {})}});
    const auto client = open_client();
    const std::pair<std::uint16_t, kelm::bytes> events[] = {{KELM_MSG_SESSION_FAILURE, failure},
                                                            {KELM_MSG_RX_STATS, stats},
                                                            {KELM_REPORT_MALFORMED, short_stats},
                                                            {1000, foreign},
                                                            {KELM_REPORT_LOST, {}}};
    kelm_report report = {};
    for (const auto &[type, body] : events) {
        ASSERT_EQ(kelm_client_next_event(client.get(), 10'000, &report), 1) << kelm_error_text();
        EXPECT_EQ(report.type, type);
        const auto *const start = static_cast<const std::uint8_t *>(report.body);
        EXPECT_EQ(kelm::bytes(start, start + report.length), body);
        kelm_frame frame;
        EXPECT_EQ(kelm_decode_frame(&report, &frame), -EINVAL);
    }
    EXPECT_EQ(kelm_client_next_event(client.get(), 0, &report), 0);
}

TEST(c_interface, packets_that_cannot_be_are_refused)
{
    kelm_packet good;
    kelm_packet_init(&good);
    good.source = "10.0.0.1";
    good.destination = "10.0.0.2";
    kelm_packet bad[4] = {good, good, good, good};
    bad[0].source = nullptr;
    bad[1].destination = "10.0.0";
    bad[2].ethernet_destination = "02:00:00:00:00:01"; // without a source
    bad[3].auth_type = 77;
    const kelm::bytes untouched(KELM_PACKET_ROOM, 0xee);
    kelm::bytes room = untouched;
    kelm_msg_tx_set_packet message = {};
    for (const auto &packet : bad)
        EXPECT_EQ(kelm_build_packet(&packet, &message, room.data(), room.size()), -EINVAL);
    EXPECT_EQ(kelm_build_packet(&good, &message, room.data(), 51), -EMSGSIZE);
    EXPECT_EQ(room, untouched);
    EXPECT_EQ(bytes_of(message), bytes_of(kelm_msg_tx_set_packet{}));
    EXPECT_EQ(kelm_build_packet(&good, &message, room.data(), 52), 52);

    kelm_bfd_auth_key slot = {};
    EXPECT_EQ(kelm_build_key(BFD_AUTH_PASSWORD, 1, "a key that is too long", 22, &slot), -EINVAL);
    EXPECT_STREQ(kelm_diagnostic_name(BFD_DIAG_CTRL_TIMEOUT), "control-detection-time-expired");
    EXPECT_STREQ(kelm_state_name(4), "?");
}

} // namespace
