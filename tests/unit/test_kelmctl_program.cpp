// SPDX-License-Identifier: GPL-2.0
//
// kelmctl as a whole, against a kelmd that is not real: what it sends, and what it makes of the
// answers. The packets in it were put together by another program.
#include <array>
#include <cerrno>

#include "kelm.h"
#include "kelmctl_line.h"
#include "libkelm_fake.h"

namespace
{

using namespace kelmctl_line;
using namespace libkelm_fake;
using kelmctl_and_kelmd = own_namespace;

std::string zeros(std::size_t count)
{
    return std::string(2 * count, '0');
}

const std::string plain_packet =
    "45c0003400004000ff1166f60a0000010a000002c0050ec80020d1af204803180000000500000000000493e0"
    "000493e000000000";
const std::string md5_packet =
    "6c000000003811fefd000000000000000000000000000001fd000000000000000000000000000002"
    "c35012b000389ab023f6013001020304a0b0c0d0ffffffff00000001000000020318070000000000"
    "00000000000000000000000000000000";
const std::string password_frame =
    "01005e900001020000000001080045c0003d00004000ff1166ed0a0000010a000002c0001a800029"
    "5181208c032100000001000000020000c3500000c350000000000109c8736563726574";
const std::string sbfd_packet =
    "45c0003c00004000ff1166ee0a0000010a000002ba291e680028c8d2204803180000000500000000"
    "000493e0000493e000000000ff08000000000000";
const std::string sha1_packet =
    "45c0005000004000ff1166da0a0000010a000002c0050ec9003cc33a204c03340000000500000000000493e0"
    "000493e000000000051c0900000000000000000000000000000000000000000000000000";

struct request_case {
    std::string line;
    std::uint16_t type;
    bool dump;
    std::string body; // fields in the order of kelm.h, little-endian
};

void expect_request(const request_case &c)
{
    fake_daemon fake({});
    const outcome got = run_line(c.line);
    SCOPED_TRACE(c.line);
    EXPECT_EQ(got.status, kelmctl::success) << got.err;
    EXPECT_EQ(got.out + got.err, "");
    ASSERT_EQ(fake.requests().size(), 1U);
    const seen request = fake.requests()[0];
    EXPECT_EQ(request.header.nlmsg_type, c.type);
    EXPECT_EQ(request.header.nlmsg_flags, NLM_F_REQUEST | (c.dump ? 0 : NLM_F_ACK));
    EXPECT_EQ(request.body, from_hex(c.body));
}

TEST_F(kelmctl_and_kelmd, packets_are_exact)
{
    const temporary_file md5_key("0123456789abcdef");
    const temporary_file password("secret\n");
    const temporary_file short_key("k");
    const std::string ipv4 = " local 10.0.0.1 peer 10.0.0.2 ";
    const request_case cases[] = {
        {"packet set 5 interval 300ms" + ipv4, KELM_MSG_TX_SET_PACKET, false,
         "05000000 00000000 0000 0100 e0930400 00000000 1c000000 40420f00 01 00 0000"
         "00000000 00 00 0000" +
             zeros(28) + "34000000" + plain_packet},
        {"packet set 0x01020304 local fd00::1 peer fd00::2 dev lo interval 50ms type multihop "
         "source-port 50000 ttl 254 jitter none state up diag neighbor-signaled-session-down "
         "multiplier 1 "
         "your-discriminator 0xa0b0c0d0 min-tx 4294.967295s min-rx 1us min-echo-rx 2us poll final "
         "demand cpi off oob rtt latch-state admin-down latch-interval 2s auth meticulous-md5 "
         "key-id 7 key-file " +
             md5_key.path(),
         KELM_MSG_TX_SET_PACKET, false,
         "04030201 01000000 0000 0000 50c30000 00000000 30000000 80841e00 00 03 0000"
         "00000000 03 00 0000 03180700 00000000 30313233343536373839616263646566 00000000"
         "60000000" +
             md5_packet},
        {"packet set 0x10 dev lo interval 50ms type lag source-port 49152 state init "
         "my-discriminator 1 your-discriminator 2 dst-mac 01:00:5e:90:00:01 "
         "src-mac 02:00:00:00:00:01 auth password key-id 200 key-file " +
             password.path() + ipv4,
         KELM_MSG_TX_SET_PACKET, false,
         "10000000 01000000 0100 0100 50c30000 0e000000 2a000000 40420f00 01 00 0000"
         "00000000 01 00 0000 0109c8 736563726574" +
             zeros(19) + "4b000000" + password_frame},
        {"packet set 5 interval 300ms type sbfd auth debug-seqnum" + ipv4, KELM_MSG_TX_SET_PACKET,
         false,
         "05000000 00000000 0000 0100 e0930400 00000000 1c000000 40420f00 01 00 0000"
         "00000000 ff 00 0000 ff08" +
             zeros(26) + "3c000000" + sbfd_packet},
        {"packet set 5 interval 300ms type echo auth meticulous-sha1 key-id 9 key-file " +
             short_key.path() + ipv4,
         KELM_MSG_TX_SET_PACKET, false,
         "05000000 00000000 0000 0100 e0930400 00000000 1c000000 40420f00 01 00 0000"
         "00000000 05 00 0000 051c0900 00000000 6b" +
             zeros(19) + "50000000" + sha1_packet},
    };
    for (const auto &c : cases)
        expect_request(c);
}

TEST_F(kelmctl_and_kelmd, sessions_are_exact)
{
    const temporary_file key1("first-key\n");
    const temporary_file key2("second-key\n");
    const std::string failure = "14000000 14000000 1b00 0000 00000000 00000000 05000000";
    expect_request({"session set interval 1s 5", KELM_MSG_RX_SET_SESSION, false,
                    "05000000 00 01 03 01" + zeros(32) + "40420f00" + zeros(8 + 48) + failure});
    expect_request(
        {"session set 5 interval 300ms multiplier 4 timer off type sbfd dev lo require-ttl 254 "
         "latch 6,7 latch-diag path-down rtt auth keyed-sha1 key-id 3 key-file " +
             key1.path() + " key2-id 4 key2-file " + key2.path(),
         KELM_MSG_RX_SET_SESSION, false,
         "05000000 04 02 04 05 06000000 07000000" + zeros(24) + "e0930400 01000000 04 02 0000" +
             "66697273742d6b6579" + zeros(11) + "03 01 0000" + //
             "7365636f6e642d6b6579" + zeros(10) + "04 01 0000" + failure});
}

TEST_F(kelmctl_and_kelmd, other_requests_are_exact)
{
    const request_case cases[] = {
        {"packet delete 5", KELM_MSG_TX_DELETE_PACKET, false, "05000000"},
        {"session delete 6", KELM_MSG_RX_DELETE_SESSION, false, "06000000"},
        {"tx-path ready", KELM_MSG_TX_PATH_READY, false, "00000000"},
        {"debug set 3", KELM_MSG_SET_DEBUG_LEVEL, false, "00000000 00000000 0300 0000"},
        {"debug set 2 7", KELM_MSG_SET_DEBUG_LEVEL, false, "07000000 00000000 0200 0000"},
        {"debug clear", KELM_MSG_SET_DEBUG_LEVEL, false, "00000000 01000000 0000 0000"},
        {"statistics interval 300", KELM_MSG_SET_SESSION_STATS_INTERVAL, false,
         "00000000 2c010000"},
        {"statistics interval off", KELM_MSG_SET_SESSION_STATS_INTERVAL, false,
         "00000000 00000000"},
        {"sync", KELM_MSG_SYNC, true, "00000000 00000000"},
        {"sync mark", KELM_MSG_SYNC, false, "00000000 01000000"},
        {"sync sweep", KELM_MSG_SYNC, false, "00000000 02000000"},
        {"statistics 5", KELM_MSG_GET_STATS, false, "05000000 00000000"},
        {"statistics show 5 clear", KELM_MSG_GET_STATS, true, "05000000 01000000"},
        {"statistics clear 5", KELM_MSG_GET_STATS, true, "05000000 03000000"},
        {"statistics", KELM_MSG_GET_STATS, true, "00000000 04000000"},
        {"statistics clear", KELM_MSG_GET_STATS, true, "00000000 07000000"},
        {"-A statistics clear", KELM_MSG_GET_STATS, true, "00000000 0f000000"},
    };
    for (const auto &c : cases)
        expect_request(c);
}

TEST_F(kelmctl_and_kelmd, refusal_is_explained)
{
    fake_daemon fake(
        {.handle = [](const seen &request) { return answers{ack(request.header, -EPERM)}; }});
    const outcome got = run_line("session delete 6");
    EXPECT_EQ(got.status, kelmctl::failure);
    EXPECT_EQ(got.err,
              "kelmctl: cannot delete receive session 6: Operation not permitted (EPERM): this "
              "requires the network administration privilege (CAP_NET_ADMIN): run as root, or give "
              "the program that capability\n");
}

// A dump that starts over repeats a record, which may have been cleared when it was read; of two
// vrfs, each ends with its module's counters.
TEST_F(kelmctl_and_kelmd, statistics_are_told_once_each_and_by_vrf)
{
    const behaviour tells = {.handle = [](const seen &request) {
        const nlmsghdr &to = request.header;
        const auto rx = [&](std::uint32_t discriminator, std::uint64_t received,
                            kelm_microsecs longest) {
            kelm_msg_rx_stats stats = {};
            stats.header.discriminator = discriminator;
            stats.num_received = received;
            stats.max_period = longest;
            return reply(to, KELM_MSG_RX_STATS, bytes_of(stats));
        };
        const kelm::bytes module =
            reply(to, KELM_MSG_MODULE_STATS, bytes_of(kelm_msg_module_stats{}));
        return answers{rx(7, 10, 5) + rx(5, 2, 0) + rx(7, 11, 6) + module, rx(5, 4, 0) + module,
                       done(to)};
    }};
    {
        fake_daemon fake(tells);
        EXPECT_EQ(run_line("-A session show").out,
                  "SESSION  VRF  RECEIVED   LAST  INTERVAL  LONGEST  TIMEOUTS  AUTH FAILED\n"
                  "      5    1         2  never         0        0         0            0\n"
                  "      7    1        11  never         0      6us         0            0\n"
                  "      5    2         4  never         0        0         0            0\n");
        EXPECT_EQ(fake.requests().at(0).body, from_hex("00000000 0c000000"));
    }
    fake_daemon fake(tells);
    const std::string cleared = run_line("-A statistics show clear").out;
    EXPECT_NE(cleared.find("      7    1        21  never         0      5us "), std::string::npos)
        << cleared;
}

// Session 5, whose packets come every 300 ms, and the frame that it has received last.
answers tell_of_session_5(const seen &request, const kelm::bytes &packet, std::uint32_t bfd_offset)
{
    const nlmsghdr &to = request.header;
    if (to.nlmsg_type == KELM_MSG_GET_STATS) {
        kelm_msg_rx_stats stats = {};
        stats.header.discriminator = 5;
        stats.num_received = 10;
        stats.avg_period = 300'000;
        stats.last_rx_time = {1000, 0};
        stats.timestamp_secs = 1000;
        stats.timestamp_nsecs = 12'000'000;
        return {reply(to, KELM_MSG_RX_STATS, bytes_of(stats)), done(to)};
    }
    const auto length = static_cast<std::uint32_t>(packet.size());
    const std::array change = {5U, 1U, 0U, 0U, bfd_offset, length};
    return {reply(to, KELM_MSG_RX_PACKET_CHANGE, bytes_of(change) + packet) +
            reply(to, KELM_MSG_RX_SYNC, from_hex("05000000 01000000")) + done(to)};
}

TEST_F(kelmctl_and_kelmd, session_listing_joins_statistics_and_state)
{
    const behaviour tells = {.handle = [](const seen &request) {
        return tell_of_session_5(request, from_hex(plain_packet), 28);
    }};
    {
        fake_daemon fake(tells);
        EXPECT_EQ(
            run_line("session").out,
            "SESSION  TIMER    DEV  FROM      STATE  DIAG           RECEIVED      LAST  INTERVAL  "
            "LONGEST  TIMEOUTS  AUTH FAILED\n"
            "      5  running  lo   10.0.0.1  down   no-diagnostic        10  12ms ago     300ms  "
            "      0         0            0\n");
    }
    fake_daemon fake(tells);
    const std::string json = run_line("-j session").out;
    for (const char *part :
         {R"([{"discriminator":5,"timer_active":true,"packet":{"ifindex":1,)",
          R"("source":"10.0.0.1")", R"("source_port":49157)", R"("state":"down")",
          R"("my_discriminator":5)", R"("avg_period":300000)",
          R"("timestamp_nsecs":12000000,"unsolicited":false}])"})
        EXPECT_NE(json.find(part), std::string::npos) << part << '\n' << json;
}

TEST_F(kelmctl_and_kelmd, frame_is_decoded)
{
    fake_daemon fake({.handle = [](const seen &request) {
        return tell_of_session_5(request, from_hex(md5_packet), 48);
    }});
    EXPECT_EQ(run_line("-s sync").out,
              "received for session 5  dev lo  from fd00::1  to fd00::2  state up  "
              "diag neighbor-signaled-session-down  ttl 254  port 4784  flags PFAD  my 16909060  "
              "your 2695938256  "
              "multiplier 1  min tx 1h 11min  min rx 1us  min echo rx 2us  auth meticulous-md5  "
              "key id 7  sequence 0\nsession 5  timer running\n");
}

TEST_F(kelmctl_and_kelmd, monitor_shows_an_event_a_line)
{
    kelm_msg_rx_stats unwanted = {};
    unwanted.header.discriminator = 5;
    // The events wait for the program behind the answer to its bind packet.
    fake_daemon fake(
        {.before_bind_answer = {message(KELM_MSG_RX_STATS, 0, 0, bytes_of(unwanted)),
                                message(KELM_MSG_SESSION_FAILURE, 0, 0, from_hex("06000000")),
                                message(KELM_MSG_SESSION_FAILURE, 0, 0, from_hex("05000000")),
                                message(NLMSG_OVERRUN, 0, 0, {})}});
    const outcome got = run_line("-j monitor 5 failures packets count 2");
    EXPECT_EQ(got.status, kelmctl::success) << got.err;
    const std::size_t second_line = got.out.find('\n') + 1;
    EXPECT_TRUE(got.out.starts_with(R"({"time":{"sec":)")) << got.out;
    EXPECT_LT(got.out.find(R"("discriminator":5,"message":"session_failure"})"), second_line)
        << got.out;
    EXPECT_TRUE(got.out.ends_with("\"message\":\"overrun\"}\n")) << got.out;
    EXPECT_EQ(fake.groups(), (std::vector<std::uint32_t>{0, 3}));
}

} // namespace
