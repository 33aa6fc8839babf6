// SPDX-License-Identifier: GPL-2.0
//
// The C interface: that it does what the C++ one does, and that no exception gets out of it.
#include <array>
#include <cerrno>
#include <memory>

#include "libkelm/libkelm.h"
#include "libkelm/packet.h"
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

kelm_packet example_packet()
{
    kelm_packet packet;
    kelm_packet_init(&packet);
    packet.source = "10.0.0.1";
    packet.destination = "10.0.0.2";
    packet.source_port = 49157;
    packet.bfd.my_discriminator = 5;
    packet.bfd.your_discriminator = 6;
    packet.bfd.min_tx_interval = 300'000;
    return packet;
}

TEST_F(c_interface_and_kelmd, requests_are_those_of_kelm_h)
{
    fake_daemon fake({});
    const auto client = open_client();
    kelm_msg_tx_set_packet packet = {};
    packet.header.discriminator = 5;
    packet.packet_len = 99; // not looked at
    kelm_msg_rx_set_session session = {};
    session.header.discriminator = 6;
    const std::array<std::uint8_t, 3> blob = {1, 2, 3};
    kelm_client *c = client.get();
    const std::pair<kelm::request, int> cases[] = {
        {kelm::set_packet(packet, blob),
         kelm_client_set_packet(c, &packet, blob.data(), blob.size())},
        {kelm::delete_packet(5), kelm_client_delete_packet(c, 5)},
        {kelm::set_session(session, blob),
         kelm_client_set_session(c, &session, blob.data(), blob.size())},
        {kelm::set_session(session, kelm::failure_message(6)),
         kelm_client_set_session(c, &session, nullptr, 0)},
        {kelm::delete_session(6), kelm_client_delete_session(c, 6)},
        {kelm::tx_path_ready(), kelm_client_tx_path_ready(c)},
        {kelm::sync(KELM_SYNC_MARK), kelm_client_sync_mark(c)},
        {kelm::sync(KELM_SYNC_SWEEP), kelm_client_sync_sweep(c)},
        {kelm::set_debug_level(7, 3, KELM_DEBUG_CLEAR_SESSIONS),
         kelm_client_set_debug_level(c, 7, 3, KELM_DEBUG_CLEAR_SESSIONS)},
        {kelm::set_stats_interval(10), kelm_client_set_stats_interval(c, 10)},
    };
    EXPECT_EQ(kelm_client_subscribe(c, 3), 0);
    EXPECT_EQ(fake.groups(), (std::vector<std::uint32_t>{0, 3}));
    const std::vector<seen> requests = fake.requests();
    ASSERT_EQ(requests.size(), std::size(cases));
    for (std::size_t i = 0; i < requests.size(); ++i) {
        EXPECT_EQ(cases[i].second, 0);
        EXPECT_EQ(requests[i].header.nlmsg_type, cases[i].first.type);
        EXPECT_EQ(requests[i].body, cases[i].first.body) << cases[i].first.type;
    }
}

// What submit() is given is the body of kelm.h, which the blocking functions are made of, too.
TEST_F(c_interface_and_kelmd, submitted_requests_are_completed)
{
    fake_daemon fake({.handle = [](const seen &request) {
        const nlmsghdr &to = request.header;
        if (to.nlmsg_type == KELM_MSG_SYNC)
            return answers{reply(to, KELM_MSG_TX_SYNC, bytes_of(5U)), done(to)};
        return answers{ack(to, to.nlmsg_type == KELM_MSG_SET_DEBUG_LEVEL ? -ENOSR : 0)};
    }});
    auto client = open_client();
    struct outcome {
        int result = 1;
        int replies = 0;
        std::string text;
    };
    const auto complete = [](void *context, int result, kelm_dump *replies) {
        auto &out = *static_cast<outcome *>(context);
        out.result = result;
        out.text = kelm_error_text();
        kelm_report report;
        while (kelm_dump_next(replies, &report) == 1)
            ++out.replies;
    };
    kelm_msg_rx_set_session session = {};
    session.header.discriminator = 6;
    session.failure_packet_len = 99; // not looked at
    const kelm_msg_sync sync = {};
    const kelm_msg_set_debug_level debug = {
        .header = {7}, .flags = 1, .debug_level = 3, .padding = {}};
    const kelm_msg_set_session_stats_interval interval = {
        .header = {0}, .interval = 10, .padding = {}};
    struct {
        kelm::request request;
        const void *body;
        int result;
        int replies;
        outcome out = {};
    } cases[] = {
        {kelm::set_session(session, kelm::failure_message(6)), &session, 0, 0},
        {kelm::sync(0), &sync, 0, 1},
        {kelm::set_debug_level(7, 3, 1), &debug, -ENOSR, 0},
        {kelm::set_stats_interval(10), &interval, 0, 0},
    };
    for (auto &c : cases)
        EXPECT_EQ(
            kelm_client_submit(client.get(), c.request.type, c.body, nullptr, 0, complete, &c.out),
            0);
    EXPECT_EQ(
        kelm_client_submit(client.get(), KELM_MSG_RX_SYNC, &sync, nullptr, 0, complete, nullptr),
        -EINVAL);
    EXPECT_EQ(kelm_client_outstanding(client.get()), std::size(cases));
    while (kelm_client_outstanding(client.get()) > 0) {
        pollfd waiting = {kelm_client_fd(client.get()), kelm_client_poll_events(client.get()), 0};
        EXPECT_GT(poll(&waiting, 1, kelm_client_timeout(client.get())), 0);
        EXPECT_EQ(kelm_client_progress(client.get()), 0);
    }
    EXPECT_EQ(kelm_client_timeout(client.get()), -1);
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        EXPECT_EQ(cases[i].out.result, cases[i].result) << i;
        EXPECT_EQ(cases[i].out.replies, cases[i].replies) << i;
        EXPECT_EQ(fake.requests().at(i).body, cases[i].request.body) << i;
    }
    EXPECT_NE(cases[2].out.text.find("clear some"), std::string::npos);
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

template<typename T>
const T &body_of(const kelm_report &report)
{
    EXPECT_GE(report.length, sizeof(T));
    return *static_cast<const T *>(report.body);
}

// Every type that has a layout, one that breaks it, one of another agent, and a loss.
TEST_F(c_interface_and_kelmd, what_kelm_tells_lies_as_in_kelm_h)
{
    kelm_packet settings = example_packet();
    settings.auth_type = BFD_AUTH_METICULOUS_SHA1;
    settings.key_id = 9;
    settings.key = "secret";
    settings.key_length = 6;
    settings.bfd.flags |= BFD_FLAG_POLL;
    kelm_msg_tx_set_packet sent = {};
    kelm::bytes packet(KELM_PACKET_ROOM);
    const int length = kelm_build_packet(&settings, &sent, packet.data(), packet.size());
    ASSERT_EQ(length, 20 + 8 + 24 + 28) << kelm_error_text();
    packet.resize(static_cast<std::size_t>(length));

    const std::array change = {6U, 1U, 2U, 0U, 28U, static_cast<std::uint32_t>(length)};
    fake_daemon fake(
        {.handle =
             [&](const seen &request) {
                 const nlmsghdr &to = request.header;
                 return answers{reply(to, KELM_MSG_RX_PACKET_CHANGE, bytes_of(change) + packet) +
                                    reply(to, KELM_MSG_RX_SYNC, from_hex("06000000 01000000")),
                                reply(to, KELM_MSG_TX_SYNC, from_hex("05000000")), done(to)};
             },
         .before_bind_answer = {message(KELM_MSG_SESSION_FAILURE, 0, 0, from_hex("06000000 aabb")) +
                                    message(KELM_MSG_RX_STATS, 0, 0, bytes_of(kelm_msg_rx_stats{})),
                                message(KELM_MSG_TX_STATS, 0, 0, from_hex("05000000")), // too short
                                message(1000, 0, 0, from_hex("01")),
                                message(NLMSG_OVERRUN, 0, 0, {})}});
    const auto client = open_client();

    kelm_dump *started = nullptr;
    ASSERT_EQ(kelm_client_sync_dump(client.get(), &started), 0) << kelm_error_text();
    const dump_handle dump(started);
    kelm_report report = {};
    ASSERT_EQ(kelm_dump_next(dump.get(), &report), 1);
    ASSERT_EQ(report.type, KELM_MSG_RX_PACKET_CHANGE);
    EXPECT_EQ(body_of<kelm_msg_rx_packet_change>(report).member_ifindex, 2U);
    EXPECT_EQ(report.length, sizeof(kelm_msg_rx_packet_change) + packet.size());

    kelm_frame frame = {};
    ASSERT_EQ(kelm_decode_frame(&report, &frame), 0) << kelm_error_text();
    EXPECT_EQ(std::string(frame.source) + ' ' + frame.destination, "10.0.0.1 10.0.0.2");
    EXPECT_EQ((std::array<int, 3>{frame.ttl, frame.source_port, frame.destination_port}),
              (std::array{255, 49157, 3784}));
    EXPECT_EQ(frame.bfd.flags,
              BFD_FLAG_POLL | BFD_FLAG_CONTROL_PLANE_INDEPENDENT | BFD_FLAG_AUTH_PRESENT);
    EXPECT_EQ((std::array{frame.bfd.my_discriminator, frame.bfd.your_discriminator,
                          frame.bfd.min_tx_interval}),
              (std::array{5U, 6U, 300'000U}));
    EXPECT_STREQ(kelm_state_name(frame.bfd.state), "down");
    EXPECT_EQ((std::array{frame.auth_type, frame.auth_key_id, frame.auth_has_sequence}),
              (std::array<std::uint8_t, 3>{BFD_AUTH_METICULOUS_SHA1, 9, 1}));

    ASSERT_EQ(kelm_dump_next(dump.get(), &report), 1);
    EXPECT_EQ(report.type, KELM_MSG_RX_SYNC);
    EXPECT_EQ(body_of<kelm_msg_rx_sync>(report).timer_active, 1U);
    EXPECT_EQ(kelm_decode_frame(&report, &frame), -EINVAL);
    ASSERT_EQ(kelm_dump_next(dump.get(), &report), 1);
    EXPECT_EQ(report.type, KELM_MSG_TX_SYNC);
    EXPECT_EQ(kelm_dump_next(dump.get(), &report), 0);

    const std::uint16_t events[] = {KELM_MSG_SESSION_FAILURE, KELM_MSG_RX_STATS,
                                    KELM_REPORT_MALFORMED, 1000, KELM_REPORT_LOST};
    for (const std::uint16_t type : events) {
        ASSERT_EQ(kelm_client_next_event(client.get(), 10'000, &report), 1) << kelm_error_text();
        EXPECT_EQ(report.type, type);
        if (type == KELM_MSG_SESSION_FAILURE) {
            EXPECT_EQ(body_of<kelm_msg_header>(report).discriminator, 6U);
        }
        if (type == KELM_MSG_RX_STATS) {
            EXPECT_EQ(report.length, sizeof(kelm_msg_rx_stats));
        }
    }
    EXPECT_EQ(kelm_client_next_event(client.get(), 0, &report), 0);
}

TEST(c_interface, packets_that_cannot_be_are_refused)
{
    const kelm_packet good = example_packet();
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
