// SPDX-License-Identifier: GPL-2.0
//
// kelmctl as a whole, against a kelmd that is not real: what it sends, and what it makes of the
// answers.
#include <gtest/gtest.h>
#include <sched.h>

#include <cerrno>

#include "kelmctl_line.h"
#include "libkelm/packet.h"
#include "libkelm_fake.h"

namespace
{

using namespace kelmctl;
using namespace kelmctl_line;
using namespace libkelm_fake;

// The whole program, in a namespace of its own with a kelmd that is not real. Needs root.
class program : public testing::Test
{
  protected:
    struct conversation {
        outcome result;
        std::vector<seen> requests;
    };

    static conversation
    run_with(const std::function<std::vector<kelm::bytes>(const seen &)> &answer,
             const std::string &line)
    {
        conversation had = {};
        std::thread([&] {
            ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "this test needs to run as root";
            const kelm::unique_fd listener = listen_on_name();
            fake_daemon fake(listener, {.handle = answer});
            had.result = run_line(line);
            shutdown(listener.get(), SHUT_RDWR); // where the program never connected
            fake.wait();
            had.requests = fake.requests();
        }).join();
        return had;
    }

    static std::vector<kelm::bytes> agree(const seen &request) { return {ack(request.header, 0)}; }

    static kelm_msg_tx_set_packet packet_of(const conversation &had)
    {
        kelm_msg_tx_set_packet packet = {};
        if (had.requests.size() != 1 || !kelm::read_into(packet, had.requests[0].body))
            ADD_FAILURE() << had.result.err;
        return packet;
    }

    static kelm_msg_rx_set_session session_of(const conversation &had)
    {
        kelm_msg_rx_set_session session = {};
        if (had.requests.size() != 1 || !kelm::read_into(session, had.requests[0].body))
            ADD_FAILURE() << had.result.err;
        return session;
    }
};

TEST_F(program, packet_from_the_least_that_must_be_said)
{
    const auto had = run_with(agree, "packet set 5 local 10.0.0.1 peer 10.0.0.2 interval 300ms");
    EXPECT_EQ(had.result.status, success);
    EXPECT_EQ(had.result.out + had.result.err, "");
    const auto packet = packet_of(had);
    EXPECT_EQ(packet.header.discriminator, 5U);
    EXPECT_EQ(packet.ifindex, 0U);
    EXPECT_EQ(packet.type, KELM_TX_SESSION_IP);
    EXPECT_EQ(packet.jitter_type, BFD_TX_JITTER_75);
    EXPECT_EQ(packet.period, 300'000U);
    EXPECT_EQ(packet.ip_hdr_offset, 0U);
    EXPECT_EQ(packet.latch_offset, 28U);
    EXPECT_EQ(packet.latch_period, 1'000'000U);
    EXPECT_EQ(packet.latch_state, BFD_STATE_DOWN);
    EXPECT_EQ(packet.flags, 0);
    EXPECT_EQ(packet.auth.type, BFD_AUTH_NONE);
    EXPECT_EQ(packet.packet_len, 52U);
    EXPECT_EQ(kelm::bytes(had.requests[0].body.begin() + sizeof packet, had.requests[0].body.end()),
              from_hex("45c0003400004000ff1166f60a0000010a000002c0050ec80020d1af2048031800000005"
                       "00000000000493e0000493e000000000"));
}

TEST_F(program, packet_with_everything)
{
    const temporary_file key("sixteen-byte-key");
    const auto had = run_with(
        agree, "packet set 0x10 local fd00::1 peer fd00::2 dev lo interval 50ms type multihop "
               "source-port 50000 ttl 254 jitter none state up diag path-down multiplier 1 "
               "my-discriminator 7 your-discriminator 8 min-tx 1s min-rx 2s min-echo-rx 3ms poll "
               "final demand cpi off oob rtt latch-state admin-down latch-interval 2s "
               "dst-mac 02:00:00:00:00:02 src-mac 02:00:00:00:00:01 "
               "auth meticulous-md5 key-id 9 key-file " +
                   key.path());
    const auto packet = packet_of(had);
    EXPECT_EQ(packet.header.discriminator, 16U);
    EXPECT_EQ(packet.ifindex, 1U);
    EXPECT_EQ(packet.type, KELM_TX_SESSION_L2);
    EXPECT_EQ(packet.jitter_type, BFD_TX_JITTER_NONE);
    EXPECT_EQ(packet.period, 50'000U);
    EXPECT_EQ(packet.ip_hdr_offset, 14U);
    EXPECT_EQ(packet.latch_offset, 62U);
    EXPECT_EQ(packet.latch_period, 2'000'000U);
    EXPECT_EQ(packet.latch_state, BFD_STATE_ADMIN_DOWN);
    EXPECT_EQ(packet.flags, KELM_TX_SEND_OOB | KELM_TX_MYDISC_RTT);
    EXPECT_EQ(packet.auth.type, BFD_AUTH_METICULOUS_MD5);
    EXPECT_EQ(std::string(packet.auth_hdr.md5.key_digest, packet.auth_hdr.md5.key_digest + 16),
              "sixteen-byte-key");
    EXPECT_EQ(packet.packet_len, 62U + 24 + 24);
    const kelm::bytes frame(had.requests[0].body.begin() + sizeof packet,
                            had.requests[0].body.end());
    const kelm::bytes link(frame.begin(), frame.begin() + 14);
    EXPECT_EQ(link, from_hex("02000000000202000000000186dd"));
    EXPECT_EQ(frame[14 + 7], 254);
    const kelm::bytes ports(frame.begin() + 54, frame.begin() + 58);
    EXPECT_EQ(ports, from_hex("c35012b0"));
    const kelm::bytes bfd(frame.begin() + 62, frame.begin() + 62 + 27);
    EXPECT_EQ(bfd, from_hex("25f60130"
                            "00000007"
                            "00000008"
                            "000f4240"
                            "001e8480"
                            "00000bb8"
                            "031809"));
}

TEST_F(program, session_with_everything)
{
    const temporary_file first("first-key\n");
    const temporary_file second("second-key\n");
    const auto had = run_with(
        agree, "session set 5 interval 300ms multiplier 4 timer off type sbfd dev lo "
               "require-ttl 254 latch 6,7 latch-diag path-down rtt auth keyed-sha1 key-id 3 "
               "key-file " +
                   first.path() + " key2-id 4 key2-file " + second.path());
    EXPECT_EQ(had.result.status, success);
    const auto session = session_of(had);
    EXPECT_EQ(session.header.discriminator, 5U);
    EXPECT_EQ(session.type, KELM_RX_SESSION_SBFD_INITIATOR);
    EXPECT_EQ(session.flags, KELM_RX_MYDISC_RTT);
    EXPECT_EQ(session.multiplier, 4);
    EXPECT_EQ(session.latch_diagnostic, BFD_DIAG_PATH_DOWN);
    EXPECT_EQ(session.latch_tx_packets[0], 6U);
    EXPECT_EQ(session.latch_tx_packets[1], 7U);
    EXPECT_EQ(session.latch_tx_packets[2], 0U);
    EXPECT_EQ(session.period, 300'000U);
    EXPECT_EQ(session.auth.ifindex, 1U);
    EXPECT_EQ(session.auth.type, BFD_AUTH_KEYED_SHA1);
    EXPECT_EQ(session.auth.flags, KELM_AUTH_TTL_254);
    EXPECT_EQ(std::string(session.auth_key[0].key, session.auth_key[0].key + 10),
              std::string("first-key\0", 10));
    EXPECT_EQ(session.auth_key[0].key_id, 3);
    EXPECT_EQ(session.auth_key[0].key_valid, 1);
    EXPECT_EQ(session.auth_key[1].key_id, 4);
    EXPECT_EQ(session.auth_key[1].key_valid, 1);
    const kelm::bytes failure(had.requests[0].body.begin() + sizeof session,
                              had.requests[0].body.end());
    EXPECT_EQ(session.failure_packet_len, failure.size());
    EXPECT_EQ(failure, from_hex("140000001b000000000000000000000005000000"));
}

TEST_F(program, session_without_more_has_a_timer_and_no_keys)
{
    const auto session = session_of(run_with(agree, "session set 5 interval 1s"));
    EXPECT_EQ(session.flags, KELM_RX_TIMER_ACTIVE);
    EXPECT_EQ(session.multiplier, 3);
    EXPECT_EQ(session.type, KELM_RX_SESSION_BFD);
    EXPECT_EQ(session.auth.flags, 0);
    EXPECT_EQ(session.auth_key[0].key_valid + session.auth_key[1].key_valid, 0);
    EXPECT_EQ(session.latch_diagnostic, BFD_DIAG_CTRL_TIMEOUT);
}

TEST_F(program, simple_requests)
{
    struct {
        const char *line;
        uint16_t type;
        const char *body;
    } const cases[] = {
        {"packet delete 5", KELM_MSG_TX_DELETE_PACKET, "05000000"},
        {"session delete 6", KELM_MSG_RX_DELETE_SESSION, "06000000"},
        {"tx-path ready", KELM_MSG_TX_PATH_READY, "00000000"},
        {"debug set 3", KELM_MSG_SET_DEBUG_LEVEL, "000000000000000003000000"},
        {"debug set 2 7", KELM_MSG_SET_DEBUG_LEVEL, "070000000000000002000000"},
        {"debug clear", KELM_MSG_SET_DEBUG_LEVEL, "000000000100000000000000"},
        {"statistics interval 10", KELM_MSG_SET_SESSION_STATS_INTERVAL, "000000000a000000"},
        {"statistics interval off", KELM_MSG_SET_SESSION_STATS_INTERVAL, "0000000000000000"},
        {"sync mark", KELM_MSG_SYNC, "0000000001000000"},
        {"sync sweep", KELM_MSG_SYNC, "0000000002000000"},
        {"statistics clear", KELM_MSG_GET_STATS, "0000000007000000"},
        {"-A statistics clear", KELM_MSG_GET_STATS, "000000000f000000"},
        {"statistics clear 5", KELM_MSG_GET_STATS, "0500000003000000"},
    };
    for (const auto &c : cases) {
        const auto had = run_with(
            [](const seen &request) {
                return std::vector<kelm::bytes>{request.header.nlmsg_type == KELM_MSG_GET_STATS
                                                    ? done(request.header)
                                                    : ack(request.header, 0)};
            },
            c.line);
        EXPECT_EQ(had.result.status, success) << c.line << had.result.err;
        ASSERT_EQ(had.requests.size(), 1U) << c.line;
        EXPECT_EQ(had.requests[0].header.nlmsg_type, c.type) << c.line;
        EXPECT_EQ(had.requests[0].body, from_hex(c.body)) << c.line;
    }
}

TEST_F(program, refusal_is_explained)
{
    const auto had = run_with(
        [](const seen &request) { return std::vector<kelm::bytes>{ack(request.header, -EPERM)}; },
        "session delete 6");
    EXPECT_EQ(had.result.status, failure);
    EXPECT_EQ(had.result.err,
              "kelmctl: cannot delete receive session 6: Operation not permitted (EPERM): this "
              "needs the network administration privilege (CAP_NET_ADMIN): run as root, or give "
              "the program that capability\n");
}

// A dump that began over repeats a record; of two vrfs, each ends with its module's counters.
TEST_F(program, statistics_are_told_once_each_and_by_vrf)
{
    const auto answer = [](const seen &request) {
        const auto rx = [&](uint32_t discriminator, uint64_t received) {
            kelm_msg_rx_stats stats = {};
            stats.header.discriminator = discriminator;
            stats.num_received = received;
            return message(KELM_MSG_RX_STATS, request.header.nlmsg_seq, port_id, bytes_of(stats));
        };
        const kelm::bytes module = message(KELM_MSG_MODULE_STATS, request.header.nlmsg_seq, port_id,
                                           bytes_of(kelm_msg_module_stats{}));
        return std::vector<kelm::bytes>{rx(7, 1) + rx(5, 2) + rx(7, 3) + module, rx(5, 4) + module,
                                        done(request.header)};
    };
    const auto had = run_with(answer, "-A session show");
    EXPECT_EQ(had.result.out,
              "SESSION  VRF  RECEIVED   LAST  INTERVAL  LONGEST  TIMEOUTS  AUTH FAILED\n"
              "      5    1         2  never         0        0         0            0\n"
              "      7    1         3  never         0        0         0            0\n"
              "      5    2         4  never         0        0         0            0\n");
    EXPECT_EQ(had.requests[0].body, from_hex("000000000c000000"));
}

TEST_F(program, session_listing_joins_statistics_and_state)
{
    const auto answer = [](const seen &request) {
        const uint32_t seq = request.header.nlmsg_seq;
        if (request.header.nlmsg_type == KELM_MSG_GET_STATS) {
            kelm_msg_rx_stats stats = {};
            stats.header.discriminator = 5;
            stats.num_received = 10;
            stats.avg_period = 300'000;
            stats.last_rx_time = {1000, 0};
            stats.timestamp_secs = 1000;
            stats.timestamp_nsecs = 12'000'000;
            return std::vector<kelm::bytes>{
                message(KELM_MSG_RX_STATS, seq, port_id, bytes_of(stats)), done(request.header)};
        }
        const kelm::bytes packet =
            from_hex("45c0003400004000ff1166f60a0000010a000002c0050ec80020d1af20c803180000000900"
                     "000005000493e0000493e000000000");
        kelm_msg_rx_packet_change change = {};
        change.header.discriminator = 5;
        change.ifindex = 1;
        change.bfd_offset = 28;
        change.packet_len = static_cast<uint32_t>(packet.size());
        return std::vector<kelm::bytes>{
            message(KELM_MSG_RX_PACKET_CHANGE, seq, port_id, bytes_of(change) + packet) +
            message(KELM_MSG_RX_SYNC, seq, port_id, from_hex("0500000001000000")) +
            done(request.header)};
    };
    EXPECT_EQ(
        run_with(answer, "session").result.out,
        "SESSION  TIMER    DEV  FROM      STATE  DIAG  RECEIVED      LAST  INTERVAL  LONGEST  "
        "TIMEOUTS  AUTH FAILED\n"
        "      5  running  lo   10.0.0.1  up     none        10  12ms ago     300ms        0  "
        "       0            0\n");
    const std::string json = run_with(answer, "-j session").result.out;
    for (const char *part :
         {R"([{"discriminator":5,"timer_active":true,"packet":{"ifindex":1,)",
          R"("source":"10.0.0.1")", R"("state":"up")", R"("my_discriminator":9)",
          R"("avg_period":300000)", R"("timestamp_nsecs":12000000,"unsolicited":false}])"})
        EXPECT_NE(json.find(part), std::string::npos) << part << '\n' << json;
}

TEST_F(program, monitor_shows_an_event_a_line)
{
    // The events wait for the program behind the answer to its bind packet.
    std::thread([&] {
        ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "this test needs to run as root";
        const kelm::unique_fd listener = listen_on_name();
        kelm_msg_rx_stats stats = {};
        stats.header.discriminator = 8;
        fake_daemon fake(
            listener,
            {.handle = agree,
             .before_bind_answer = {message(KELM_MSG_RX_STATS, 0, 0, bytes_of(stats)),
                                    message(KELM_MSG_SESSION_FAILURE, 0, 0, from_hex("05000000")),
                                    message(NLMSG_OVERRUN, 0, 0, {})}});
        const outcome got = run_line("-j monitor failures packets count 2");
        EXPECT_EQ(got.status, success) << got.err;
        std::istringstream lines(got.out);
        std::string first;
        std::string second;
        std::getline(lines, first);
        std::getline(lines, second);
        EXPECT_NE(first.find(R"("discriminator":5,"message":"session_failure"})"),
                  std::string::npos)
            << first;
        EXPECT_EQ(first.find(R"({"time":{"sec":)"), 0U);
        EXPECT_NE(second.find(R"("message":"overrun"})"), std::string::npos) << second;
        fake.wait();
        EXPECT_EQ(fake.groups(), (std::vector<uint32_t>{0, 3}));
    }).join();
}

} // namespace
