// SPDX-License-Identifier: GPL-2.0
//
// Conversations with a kelmd that is not real.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>

#include "libkelm/client.h"
#include "libkelm/error.h"
#include "libkelm_fake.h"

namespace
{

using namespace libkelm_fake;
using kelm::milliseconds;
using answers = std::vector<kelm::bytes>;

kelm::bytes tx_sync(uint32_t discriminator, const nlmsghdr &to)
{
    return message(KELM_MSG_TX_SYNC, to.nlmsg_seq, port_id, bytes_of(discriminator));
}

kelm::bytes failure_event(uint32_t discriminator)
{
    return message(KELM_MSG_SESSION_FAILURE, 0, 0, bytes_of(discriminator));
}

kelm::client connect(fake_daemon &to)
{
    return kelm::client(kelm::transport::adopt(to.take()));
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

std::vector<uint32_t> discriminators(const std::vector<kelm::report> &reports)
{
    std::vector<uint32_t> list;
    for (const auto &report : reports)
        list.push_back(std::get<kelm_msg_tx_sync>(report).header.discriminator);
    return list;
}

TEST(client, request_is_acknowledged_or_refused)
{
    fake_daemon fake({.handle = [](const seen &request) {
        return answers{ack(request.header,
                           request.header.nlmsg_type == KELM_MSG_RX_DELETE_SESSION ? -ENOENT : 0)};
    }});
    {
        kelm::client client = connect(fake);
        EXPECT_EQ(client.socket().port_id(), port_id);
        EXPECT_FALSE(client.socket().is_kernel());
        EXPECT_TRUE(client.execute(kelm::delete_packet(1)).empty());
        EXPECT_THROW(client.execute(kelm::delete_session(2)), kelm::refused);
        EXPECT_EQ(error_number([&] { client.execute(kelm::delete_session(2)); }), ENOENT);
        EXPECT_TRUE(client.execute(kelm::tx_path_ready()).empty());
    }
    fake.wait();
    ASSERT_EQ(fake.requests().size(), 4U);
    const nlmsghdr &header = fake.requests()[0].header;
    EXPECT_EQ(header.nlmsg_flags, NLM_F_REQUEST | NLM_F_ACK);
    EXPECT_EQ(header.nlmsg_pid, port_id);
    EXPECT_EQ(fake.requests()[1].header.nlmsg_seq, header.nlmsg_seq + 1);
}

TEST(client, reply_comes_back_with_its_acknowledgement)
{
    fake_daemon fake({.handle = [](const seen &request) {
        kelm_msg_rx_stats stats = {};
        stats.header.discriminator = 5;
        return answers{
            message(KELM_MSG_RX_STATS, request.header.nlmsg_seq, port_id, bytes_of(stats)),
            ack(request.header, 0)};
    }});
    kelm::client client = connect(fake);
    const auto reports = client.statistics(5, 0);
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_EQ(std::get<kelm_msg_rx_stats>(reports[0]).header.discriminator, 5U);
}

// Events come before, within and after an answer, also in one datagram with it; foreign sequence
// numbers and port ids are no answer.
TEST(client, events_in_between_are_kept)
{
    fake_daemon fake({.handle = [](const seen &request) {
        nlmsghdr other = request.header;
        other.nlmsg_seq++;
        return answers{
            failure_event(1) + failure_event(2), ack(other, -EPERM),
            message(KELM_MSG_TX_SYNC, request.header.nlmsg_seq, port_id + 1, bytes_of(uint32_t{3})),
            ack(request.header, -ENOENT) + failure_event(4), failure_event(5)};
    }});
    kelm::client client = connect(fake);
    EXPECT_EQ(error_number([&] { client.execute(kelm::delete_packet(1)); }), ENOENT);
    std::vector<uint32_t> heard;
    for (int i = 0; i < 5; i++) {
        const auto event = client.next_event(milliseconds(5000));
        ASSERT_TRUE(event);
        if (const auto *failure = std::get_if<kelm::session_failure>(&*event))
            heard.push_back(failure->discriminator);
        else
            heard.push_back(std::get<kelm_msg_tx_sync>(*event).header.discriminator);
    }
    EXPECT_EQ(heard, (std::vector<uint32_t>{1, 2, 3, 4, 5}));
    EXPECT_FALSE(client.next_event(milliseconds(0)));
}

TEST(client, dump_is_collected_to_its_end)
{
    fake_daemon fake({.handle = [](const seen &request) {
        return answers{tx_sync(1, request.header) + tx_sync(2, request.header), failure_event(9),
                       tx_sync(3, request.header) + done(request.header)};
    }});
    {
        kelm::client client = connect(fake);
        EXPECT_EQ(discriminators(client.dump(kelm::sync(0))), (std::vector<uint32_t>{1, 2, 3}));
        EXPECT_TRUE(client.next_event(milliseconds(0)));
    }
    fake.wait();
    EXPECT_EQ(fake.requests()[0].header.nlmsg_flags, NLM_F_REQUEST);
}

TEST(client, dump_that_is_refused_or_fails_throws)
{
    fake_daemon fake({.handle = [](const seen &request) {
        if (request.header.nlmsg_type == KELM_MSG_SYNC)
            return answers{ack(request.header, -EBUSY)};
        return answers{tx_sync(1, request.header),
                       message(NLMSG_DONE, request.header.nlmsg_seq, port_id,
                               bytes_of(int32_t{-ENOMEM}), NLM_F_MULTI)};
    }});
    kelm::client client = connect(fake);
    EXPECT_EQ(error_number([&] { client.dump(kelm::sync(0)); }), EBUSY);
    EXPECT_EQ(error_number([&] { client.statistics(0, 0); }), ENOMEM);
}

TEST(client, dump_is_made_again_when_it_was_spoilt)
{
    int attempt = 0;
    fake_daemon fake({.handle = [&](const seen &request) {
        switch (attempt++) {
        case 0: // something was lost
            return answers{message(NLMSG_OVERRUN, 0, 0, {}),
                           tx_sync(1, request.header) + done(request.header)};
        case 1: // the tables changed under it
            return answers{tx_sync(1, request.header) + done(request.header, NLM_F_DUMP_INTR)};
        default:
            return answers{tx_sync(2, request.header) + done(request.header)};
        }
    }});
    kelm::client client = connect(fake);
    EXPECT_EQ(discriminators(client.dump(kelm::sync(0))), std::vector<uint32_t>{2});
    const auto event = client.next_event(milliseconds(0));
    ASSERT_TRUE(event);
    EXPECT_TRUE(std::holds_alternative<kelm::overrun>(*event));
}

// What has been cleared cannot be read again, and a flood is not waited out for ever.
TEST(client, spoilt_dump_is_given_up_where_it_must_be)
{
    fake_daemon fake({.handle = [](const seen &request) {
        return answers{message(NLMSG_OVERRUN, 0, 0, {}),
                       tx_sync(1, request.header) + done(request.header)};
    }});
    {
        kelm::client client = connect(fake);
        EXPECT_EQ(error_number([&] { client.statistics(0, KELM_STATS_CLEAR); }), ENOBUFS);
        EXPECT_EQ(error_number([&] { client.dump(kelm::sync(0)); }), ENOBUFS);
    }
    fake.wait();
    size_t clearing = 0;
    for (const auto &request : fake.requests())
        clearing += request.header.nlmsg_type == KELM_MSG_GET_STATS;
    EXPECT_EQ(clearing, 1U);
    EXPECT_GT(fake.requests().size(), 3U);
}

TEST(client, groups_are_asked_for_in_a_bind_packet)
{
    fake_daemon fake({.handle = [](const seen &) { return answers{}; },
                      .before_bind_answer = {failure_event(1)}});
    {
        kelm::client client = connect(fake);
        client.subscribe(3);
        // What came while the bind packets were being answered.
        EXPECT_TRUE(client.next_event(milliseconds(0)));
        EXPECT_TRUE(client.next_event(milliseconds(0)));
        EXPECT_FALSE(client.next_event(milliseconds(0)));
    }
    fake.wait();
    EXPECT_EQ(fake.groups(), (std::vector<uint32_t>{0, 3}));
}

TEST(client, groups_that_are_not_granted_are_an_error)
{
    fake_daemon fake({.handle = [](const seen &) { return answers{}; }, .allowed_groups = 0});
    kelm::client client = connect(fake);
    EXPECT_EQ(error_number([&] { client.subscribe(1); }), EPERM);
}

TEST(client, port_id_that_is_taken_is_an_error)
{
    fake_daemon fake({.handle = [](const seen &) { return answers{}; }, .bind_port_id = 0});
    EXPECT_EQ(error_number([&] { connect(fake); }), EADDRINUSE);
}

TEST(client, datagram_above_the_usual_size_comes_whole)
{
    const kelm::bytes large = message(999, 0, 0, kelm::bytes(180'000, 0x77));
    int size = 1 << 20;
    fake_daemon fake({.handle = [&](const seen &request) {
        return answers{large, ack(request.header, 0)};
    }});
    kelm::unique_fd end = fake.take();
    ASSERT_EQ(setsockopt(end.get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size), 0);
    kelm::client client(kelm::transport::adopt(std::move(end)));
    client.execute(kelm::tx_path_ready());
    const auto event = client.next_event(milliseconds(0));
    ASSERT_TRUE(event);
    EXPECT_EQ(std::get<kelm::unknown_message>(*event).body.size(), 180'000U);
}

TEST(client, daemon_that_goes_is_an_error_and_no_hang)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    kelm::unique_fd mine(ends[0]);
    kelm::unique_fd theirs(ends[1]);
    const sockaddr_nl bound = {.nl_family = AF_NETLINK, .nl_pad = 0, .nl_pid = 1, .nl_groups = 0};
    ASSERT_EQ(send(theirs.get(), &bound, sizeof bound, 0), ssize_t{sizeof bound});
    kelm::client client(kelm::transport::adopt(std::move(mine)));
    theirs = {};
    EXPECT_NE(error_number([&] { client.next_event(milliseconds(5000)); }), 0);
    EXPECT_NE(error_number([&] { client.execute(kelm::tx_path_ready()); }), 0);
}

// Neither silence nor a stream of events keeps a request waiting for ever.
TEST(client, answer_that_does_not_come_is_given_up)
{
    fake_daemon mute({.handle = [](const seen &) { return answers{}; }});
    kelm::client waiting = connect(mute);
    waiting.set_answer_timeout(milliseconds(50));
    EXPECT_EQ(error_number([&] { waiting.execute(kelm::tx_path_ready()); }), ETIMEDOUT);

    std::atomic<bool> enough = false;
    std::thread talk;
    fake_daemon talker({.handle = [](const seen &) { return answers{}; }});
    kelm::unique_fd ends = talker.take();
    kelm::client client(kelm::transport::adopt(std::move(ends)));
    talk = std::thread([&] {
        while (!enough)
            talker.send(failure_event(1));
    });
    client.set_answer_timeout(milliseconds(50));
    EXPECT_EQ(error_number([&] { client.execute(kelm::tx_path_ready()); }), ETIMEDOUT);
    enough = true;
    // The talker's last datagram may be waiting for room.
    while (client.next_event(milliseconds(10)))
        ;
    talk.join();
}

// In a namespace of the test's own, where kelmd's name is free. Needs root.
class client_in_namespace : public testing::Test
{
  protected:
    static void run(const std::function<void()> &body)
    {
        std::thread([&] {
            ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "this test needs to run as root";
            body();
        }).join();
    }
};

TEST_F(client_in_namespace, finds_kelmd_by_its_name)
{
    run([] {
        EXPECT_EQ(error_number([] { kelm::client client; }), ECONNREFUSED);
        const kelm::unique_fd listener = listen_on_name();
        fake_daemon fake(listener, {.handle = [](const seen &request) {
                             return answers{ack(request.header, 0)};
                         }});
        kelm::client client;
        EXPECT_TRUE(client.execute(kelm::tx_path_ready()).empty());
    });
}

TEST_F(client_in_namespace, opens_in_another_namespace_and_stays_in_its_own)
{
    // The path of a thread's namespace, as another thread can open it.
    const auto path = [] {
        return "/proc/" + std::to_string(getpid()) + "/task/" + std::to_string(gettid()) +
               "/ns/net";
    };
    run([&] {
        const kelm::unique_fd listener = listen_on_name();
        fake_daemon fake(listener, {.handle = [](const seen &request) {
                             return answers{ack(request.header, 0)};
                         }});
        const std::string inner = path();
        run([&] {
            kelm::client client(inner);
            EXPECT_TRUE(client.execute(kelm::tx_path_ready()).empty());
            EXPECT_EQ(error_number([] { kelm::client client_here; }), ECONNREFUSED);
        });
    });
    EXPECT_EQ(error_number([] { kelm::client client("kelm-no-such-name"); }), ENOENT);
}

// Somebody else has taken kelmd's name: keys must not go there. A socket's credentials are those of
// the process that listens, so another user has to be it.
TEST_F(client_in_namespace, daemon_of_another_user_is_not_trusted)
{
    constexpr uid_t nobody = 65534;
    run([] {
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        const pid_t squatter = fork();
        if (squatter == 0) {
            if (setuid(nobody) != 0)
                _exit(1);
            const kelm::unique_fd listener = listen_on_name();
            (void)!write(ready[1], "", 1);
            pause();
        }
        close(ready[1]); // so that a squatter that fails is heard of
        char octet;
        ASSERT_EQ(read(ready[0], &octet, 1), 1);
        EXPECT_EQ(error_number([] { kelm::client client; }), EPERM);
        kill(squatter, SIGKILL);
        waitpid(squatter, nullptr, 0);
        close(ready[0]);
    });
}

} // namespace
