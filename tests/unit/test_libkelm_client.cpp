// SPDX-License-Identifier: GPL-2.0
//
// Conversations with a kelmd that is not real.
#include <cerrno>
#include <fcntl.h>

#include "libkelm/client.h"
#include "libkelm/error.h"
#include "libkelm_fake.h"

namespace
{

using namespace libkelm_fake;
using kelm::milliseconds;
using client_and_kelmd = own_namespace;

const kelm::bytes overrun = message(NLMSG_OVERRUN, 0, 0, {});

kelm::bytes tx_sync(std::uint32_t discriminator, const nlmsghdr &to)
{
    return reply(to, KELM_MSG_TX_SYNC, bytes_of(discriminator));
}

kelm::bytes failure_event(std::uint32_t discriminator)
{
    return message(KELM_MSG_SESSION_FAILURE, 0, 0, bytes_of(discriminator));
}

int error_number(const std::function<void()> &action)
{
    try {
        action();
        return 0;
    } catch (const kelm::error &problem) {
        return problem.number();
    }
}

std::uint32_t discriminator_of(const kelm::report &report)
{
    if (const auto *failure = std::get_if<kelm::session_failure>(&report))
        return failure->discriminator;
    return std::get<kelm_msg_tx_sync>(report).header.discriminator;
}

std::size_t count_events(kelm::client &client)
{
    std::size_t count = 0;
    while (client.next_event(milliseconds(0)))
        ++count;
    return count;
}

TEST_F(client_and_kelmd, requests_are_acknowledged_answered_or_refused)
{
    fake_daemon fake({.handle = [](const seen &request) {
        const nlmsghdr &to = request.header;
        switch (to.nlmsg_type) {
        case KELM_MSG_RX_DELETE_SESSION:
            return answers{ack(to, -ENOENT)};
        case KELM_MSG_GET_STATS:
            return answers{reply(to, KELM_MSG_RX_STATS, bytes_of(kelm_msg_rx_stats{})), ack(to, 0)};
        default:
            return answers{ack(to, 0)};
        }
    }});
    kelm::client client;
    EXPECT_EQ(client.socket().port_id(), port_id);
    EXPECT_TRUE(client.execute(kelm::delete_packet(1)).empty());
    EXPECT_THROW(client.execute(kelm::delete_session(2)), kelm::refused);
    EXPECT_EQ(error_number([&] { client.execute(kelm::delete_session(2)); }), ENOENT);
    const auto reports = client.statistics(5, 0);
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_TRUE(std::holds_alternative<kelm_msg_rx_stats>(reports[0]));

    const nlmsghdr first = fake.requests().at(0).header;
    EXPECT_EQ(first.nlmsg_flags, NLM_F_REQUEST | NLM_F_ACK);
    EXPECT_EQ(first.nlmsg_pid, port_id);
    EXPECT_EQ(fake.requests().at(1).header.nlmsg_seq, first.nlmsg_seq + 1);
}

// Events come before, within and after an answer, also in one datagram with it; foreign sequence
// numbers and port ids are no answer.
TEST_F(client_and_kelmd, events_in_between_are_kept)
{
    fake_daemon fake({.handle = [](const seen &request) {
        const nlmsghdr &to = request.header;
        nlmsghdr other = to;
        ++other.nlmsg_seq;
        return answers{
            failure_event(1) + failure_event(2), ack(other, -EPERM),
            message(KELM_MSG_TX_SYNC, to.nlmsg_seq, port_id + 1, bytes_of(std::uint32_t{3})),
            ack(to, -ENOENT) + failure_event(4), failure_event(5)};
    }});
    kelm::client client;
    EXPECT_EQ(error_number([&] { client.execute(kelm::delete_packet(1)); }), ENOENT);
    for (std::uint32_t expected = 1; expected <= 5; ++expected) {
        const auto event = client.next_event(milliseconds(5000));
        ASSERT_TRUE(event);
        EXPECT_EQ(discriminator_of(*event), expected);
    }
    EXPECT_EQ(count_events(client), 0U);
}

// A dump that was spoilt is made again; but what has been cleared cannot be read again, and a flood
// is not waited out for ever.
TEST_F(client_and_kelmd, dump_is_collected_made_again_or_given_up)
{
    using attempt = std::function<answers(const nlmsghdr &)>;
    const attempt whole = [](const nlmsghdr &to) {
        return answers{tx_sync(1, to) + tx_sync(2, to), failure_event(9),
                       tx_sync(3, to) + done(to)};
    };
    const attempt lost = [](const nlmsghdr &to) {
        return answers{overrun, tx_sync(4, to) + done(to)};
    };
    const attempt whole_after_loss = [](const nlmsghdr &to) {
        return answers{overrun, tx_sync(1, to) + tx_sync(2, to) + tx_sync(3, to) + done(to)};
    };
    const attempt changed_under_it = [](const nlmsghdr &to) {
        return answers{tx_sync(4, to) + done(to, NLM_F_DUMP_INTR)};
    };
    const attempt failed = [](const nlmsghdr &to) {
        return answers{tx_sync(4, to), done(to, 0, -ENOMEM)};
    };
    struct {
        const char *name;
        kelm::request request;
        std::vector<attempt> attempts; // the last one for ever
        int error;
        std::size_t made;
        std::size_t events;
    } const cases[] = {
        {"whole", kelm::sync(0), {whole}, 0, 1, 1},
        {"spoilt", kelm::sync(0), {lost, changed_under_it, whole}, 0, 3, 2},
        {"failed", kelm::sync(0), {failed}, ENOMEM, 1, 0},
        {"cleared", kelm::get_stats(0, KELM_STATS_CLEAR), {lost, whole}, ENOBUFS, 1, 1},
        {"cleared unread",
         kelm::get_stats(0, KELM_STATS_CLEAR | KELM_STATS_NO_REPORT),
         {whole_after_loss},
         0,
         1,
         1},
        {"flood", kelm::sync(0), {lost}, ENOBUFS, 5, 5},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::size_t made = 0;
        fake_daemon fake({.handle = [&](const seen &request) {
            EXPECT_EQ(request.header.nlmsg_flags, NLM_F_REQUEST);
            return c.attempts[std::min(made++, c.attempts.size() - 1)](request.header);
        }});
        kelm::client client;
        std::vector<std::uint32_t> told;
        EXPECT_EQ(error_number([&] {
                      for (const auto &report : client.dump(c.request))
                          told.push_back(discriminator_of(report));
                  }),
                  c.error);
        EXPECT_EQ(told, c.error == 0 ? (std::vector<std::uint32_t>{1, 2, 3})
                                     : std::vector<std::uint32_t>{});
        EXPECT_EQ(count_events(client), c.events);
        EXPECT_EQ(fake.requests().size(), c.made);
    }
}

TEST_F(client_and_kelmd, groups_and_port_ids_are_granted_in_bind_packets)
{
    {
        fake_daemon fake({.before_bind_answer = {failure_event(1)}});
        kelm::client client;
        client.subscribe(3);
        EXPECT_EQ(fake.groups(), (std::vector<std::uint32_t>{0, 3}));
        EXPECT_EQ(count_events(client), 2U); // what came while they were being answered
    }
    {
        fake_daemon without_groups({.allowed_groups = 2});
        kelm::client client;
        EXPECT_EQ(error_number([&] { client.subscribe(3); }), EPERM);
    }
    fake_daemon port_id_taken({.bind_port_id = 0});
    EXPECT_EQ(error_number([] { kelm::client client; }), EADDRINUSE);
}

TEST_F(client_and_kelmd, datagram_above_the_usual_size_comes_whole)
{
    fake_daemon fake({.handle = [](const seen &request) {
        return answers{message(999, 0, 0, kelm::bytes(180'000, 0x77)), ack(request.header, 0)};
    }});
    kelm::client client;
    client.execute(kelm::tx_path_ready());
    const auto event = client.next_event(milliseconds(0));
    ASSERT_TRUE(event);
    EXPECT_EQ(std::get<kelm::unknown_message>(*event).body, kelm::bytes(180'000, 0x77));
}

// Neither silence nor a stream of events keeps a request waiting for ever.
TEST_F(client_and_kelmd, answer_that_does_not_come_is_given_up)
{
    kelm::bytes events; // more to read than to write, so that there is always something to read
    for (int i = 0; i < 1000; ++i)
        events = events + failure_event(1);
    for (const bool talks : {false, true}) {
        fake_daemon fake({.handle = [&](const seen &) {
            while (talks && fake.send(events))
                ;
            return answers{};
        }});
        kelm::client client;
        client.set_answer_timeout(milliseconds(50));
        EXPECT_EQ(error_number([&] { client.execute(kelm::tx_path_ready()); }), ETIMEDOUT) << talks;
    }
}

TEST_F(client_and_kelmd, daemon_that_goes_is_an_error_and_no_hang)
{
    fake_daemon fake({.handle = [&](const seen &) {
        fake.hang_up();
        return answers{};
    }});
    kelm::client client;
    EXPECT_EQ(error_number([&] { client.execute(kelm::tx_path_ready()); }), ECONNRESET);
    EXPECT_EQ(error_number([&] { client.next_event(milliseconds(5000)); }), ECONNRESET);
    EXPECT_EQ(error_number([&] { client.execute(kelm::tx_path_ready()); }), ECONNRESET);
}

TEST_F(client_and_kelmd, opens_in_another_namespace_and_stays_in_its_own)
{
    fake_daemon fake({});
    const kelm::unique_fd there(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(unshare(CLONE_NEWNET), 0);
    kelm::client client("/proc/self/fd/" + std::to_string(there.get()));
    EXPECT_TRUE(client.execute(kelm::tx_path_ready()).empty());
    EXPECT_EQ(error_number([] { kelm::client client_here; }), ECONNREFUSED);
    EXPECT_EQ(error_number([] { kelm::client nowhere("kelm-no-such-name"); }), ENOENT);
}

// Somebody else has taken kelmd's name: keys must not go there.
TEST_F(client_and_kelmd, daemon_of_another_user_is_not_trusted)
{
    constexpr uid_t nobody = 65534;
    ASSERT_EQ(seteuid(nobody), 0);
    fake_daemon squatter({}); // the socket's credentials are those of whoever listens
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(error_number([] { kelm::client client; }), EPERM);
}

} // namespace
