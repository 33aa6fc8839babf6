// SPDX-License-Identifier: GPL-2.0
//
// kelmctl: what people type, what they see, and what it sends.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "kelmctl/arguments.h"
#include "kelmctl/help.h"
#include "kelmctl/printer.h"
#include "kelmctl/run.h"
#include "libkelm/error.h"
#include "libkelm_fake.h"

namespace
{

using namespace kelmctl;
using namespace libkelm_fake;

// A command line as main() gets it.
class words
{
  public:
    explicit words(const std::string &line)
    {
        std::istringstream stream(line);
        for (std::string word; stream >> word;)
            storage_.push_back(word);
        for (auto &word : storage_)
            pointers_.push_back(word.data());
        pointers_.push_back(nullptr);
    }

    std::span<char *const> span() const { return std::span(pointers_).first(pointers_.size() - 1); }

  private:
    std::vector<std::string> storage_;
    std::vector<char *> pointers_;
};

struct outcome {
    exit_status status;
    std::string out;
    std::string err;
};

outcome run_line(const std::string &line)
{
    std::ostringstream out;
    std::ostringstream err;
    const exit_status status = run(words("kelmctl " + line).span(), out, err);
    return {status, out.str(), err.str()};
}

template<typename Action>
std::string usage_problem(Action action)
{
    try {
        action();
        return "";
    } catch (const usage_error &problem) {
        return problem.what();
    }
}

TEST(values, durations)
{
    struct {
        const char *text;
        uint32_t microseconds;
    } const good[] = {
        {"300ms", 300'000},
        {"1.5s", 1'500'000},
        {"750us", 750},
        {"0", 0},
        {"0ms", 0},
        {"0.3ms", 300},
        {"2min", 120'000'000},
        {"3.333ms", 3333},
        {"4294.967295s", 0xffffffff},
        {".5s", 500'000},
    };
    for (const auto &c : good)
        EXPECT_EQ(parse_duration("interval", c.text), c.microseconds) << c.text;
    for (const char *bad : {"", "300", "ms", "-1ms", "1e3ms", "4295s", "300 ms", "300msx", "nan",
                            "inf", "0x10ms", "99999999999999999999s"})
        EXPECT_NE(usage_problem([&] { parse_duration("interval", bad); }), "") << bad;
}

TEST(values, numbers_and_lists)
{
    EXPECT_EQ(parse_number("ttl", "255", 0, 255), 255U);
    EXPECT_EQ(parse_number("n", "0x1F", 0, 255), 31U);
    for (const char *bad : {"", "256", "-1", "1 ", "0x", "1x", "4294967296"})
        EXPECT_NE(usage_problem([&] { parse_number("ttl", bad, 0, 255); }), "") << bad;
    EXPECT_EQ(usage_problem([] { parse_number("ttl", "256", 0, 255); }),
              "ttl: '256' is not a number from 0 to 255");
    EXPECT_EQ(parse_discriminators("5,0x10,4294967295"),
              (std::vector<uint32_t>{5, 16, 0xffffffff}));
    for (const char *bad : {"", "5,", ",5", "5,,6", "0", "5 6"})
        EXPECT_NE(usage_problem([&] { parse_discriminators(bad); }), "") << bad;
}

constexpr parameter table_parameters[] = {{"interval", "TIME", ""}, {"poll", "", ""}};
constexpr command table_command = {"set", "A [B]", "", table_parameters, nullptr};

TEST(arguments, follow_the_table)
{
    struct {
        const char *line;
        const char *problem;
    } const cases[] = {
        {"1", ""},
        {"1 2", ""},
        {"1 interval 5s poll", ""},
        {"interval 5s 1", ""},
        {"poll 1 2 interval poll", ""}, // a value may look like a parameter
        {"", "A is missing"},
        {"poll", "A is missing"},
        {"1 2 3", "'3' is not expected here"},
        {"1 interval", "'interval' wants a value: TIME"},
        {"1 poll poll", "'poll' is given twice"},
        {"1 interval 1s interval 2s", "'interval' is given twice"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(usage_problem([&] { arguments(table_command, words(c.line).span()); }), c.problem)
            << c.line;

    const words line("7 interval 5s");
    const arguments args(table_command, line.span());
    EXPECT_EQ(args.discriminator(), 7U);
    EXPECT_EQ(args.discriminator(1), std::nullopt);
    EXPECT_EQ(args.duration("interval"), 5'000'000U);
    EXPECT_FALSE(args.has("poll"));
    EXPECT_EQ(args.number("poll", 0, 1), std::nullopt);
}

TEST(durations, are_humane)
{
    struct {
        uint64_t microseconds;
        const char *text;
    } const cases[] = {
        {0, "0"},
        {999, "999us"},
        {1000, "1ms"},
        {98'120, "98.12ms"},
        {999'949, "999.9ms"},
        {999'950, "1s"},
        {1'500'000, "1.5s"},
        {59'990'000, "59.99s"},
        {123'000'000, "2min 3s"},
        {7'200'000'000, "2h"},
        {97'200'000'000, "1d 3h"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(format_duration(c.microseconds), c.text);
}

TEST(command_line, exit_status_and_where_things_are_said)
{
    struct {
        const char *line;
        exit_status status;
        const char *out;
        const char *err;
    } const cases[] = {
        {"--version", success, "kelmctl ", ""},
        {"-h", success, "usage: kelmctl", ""},
        {"help", success, "usage: kelmctl", ""},
        {"", usage, "", "usage: kelmctl"},
        {"session help", success, "usage: kelmctl [OPTIONS] session", ""},
        {"session --help", success, "delete DISCRIMINATOR", ""},
        {"sess se help", success, "multiplier N", ""},
        {"packet set 5 local 10.0.0.1 help", success, "dst-mac MAC", ""},
        {"s show", usage, "", "may be any of: session, statistics, sync"},
        {"nothing", usage, "", "there is no object 'nothing'"},
        {"session nothing", usage, "", "there is no session command 'nothing'"},
        {"session set", usage, "", "DISCRIMINATOR is missing"},
        {"session set 5", usage, "", "'interval' is missing"},
        {"session set 0 interval 1s", usage, "", "discriminator: '0'"},
        {"session set 5 interval 20s multiplier 255", usage, "", "below 4294 seconds"},
        {"session set 5 interval 0", usage, "", "more than 0"},
        {"session set 5 interval 1s latch 1,2,3,4,5,6,7,8,9", usage, "", "8 packets"},
        {"session set 5 interval 1s auth keyed-md5", usage, "", "'key-file' is missing"},
        {"session set 5 interval 1s key-file /dev/null", usage, "", "needs an 'auth' type"},
        {"session set 5 interval 1s auth sha2", usage, "", "is not one of: none, password"},
        {"packet set 5 interval 1s local 10.0.0.1", usage, "", "'peer' is missing"},
        {"packet set 5 interval 1s local fe80::1 peer fe80::2", usage, "", "needs 'dev'"},
        {"packet set 5 interval 1s local 10.0.0.1 peer 10.0.0.2 dst-mac 02:0:0:0:0:1", usage, "",
         "'dev' is missing"},
        {"packet set 5 interval 1s local 10.0.0.1 peer fd00::1", failure, "", "both be IPv4"},
        {"debug set 4", usage, "", "0 to 3"},
        {"statistics interval 65536", usage, "", "65535"},
        {"-A statistics show 5 clear", usage, "", "-A does not go"},
        {"--nothing session", usage, "", "there is no option '--nothing'"},
        {"-x", usage, "", "there is no option '-x'"},
        {"-n", usage, "", "option '-n' wants a value"},
        {"-n kelm-no-such-name session", failure, "", "'ip netns' lists"},
    };
    for (const auto &c : cases) {
        const outcome got = run_line(c.line);
        EXPECT_EQ(got.status, c.status) << c.line;
        EXPECT_NE(got.out.find(c.out), std::string::npos) << c.line << '\n' << got.out;
        EXPECT_NE(got.err.find(c.err), std::string::npos) << c.line << '\n' << got.err;
        EXPECT_EQ(got.err.empty(), c.err[0] == '\0') << c.line;
    }
}

TEST(help, tells_every_command_and_parameter)
{
    for (const auto &object : objects) {
        EXPECT_NE(overview_help().find(object.name), std::string::npos);
        for (const auto &command : object.commands) {
            EXPECT_NE(object_help(object).find(command.name), std::string::npos);
            const std::string text = command_help(object, command);
            for (const auto &parameter : command.parameters)
                EXPECT_NE(text.find("\n  " + std::string(parameter.name)), std::string::npos)
                    << object.name << ' ' << command.name << ' ' << parameter.name;
            std::istringstream lines(text);
            for (std::string line; std::getline(lines, line);)
                EXPECT_LE(line.size(), 100U) << line;
        }
    }
}

std::vector<record> two_records()
{
    record first;
    first.number("discriminator", "session", 5)
        .text("packet.state", "state", "up")
        .duration("avg_period", "avg", 300'000)
        .json("packet.length", uint64_t{66})
        .full()
        .age("last_rx_time", "last", {100, 0}, {100, 12'000'000});
    record second;
    second.number("discriminator", "session", 1234)
        .duration("avg_period", "avg", 1500)
        .full()
        .age("last_rx_time", "last", {0, 0}, {100, 0});
    return {first, second};
}

std::string print(const options &options, bool as_lines = false)
{
    std::ostringstream out;
    printer printer(options, out);
    if (as_lines)
        printer.lines(two_records());
    else
        printer.list(two_records());
    printer.finish();
    return out.str();
}

TEST(printer, one_record_serves_every_form)
{
    EXPECT_EQ(print({}), "SESSION  STATE    AVG\n"
                         "      5  up     300ms\n"
                         "   1234  -      1.5ms\n");
    options all;
    all.statistics = true;
    EXPECT_EQ(print(all), "session 5\n"
                          "    state    up\n"
                          "    avg      300ms\n"
                          "    last     12ms ago\n"
                          "\n"
                          "session 1234\n"
                          "    avg      1.5ms\n"
                          "    last     never\n");
    EXPECT_EQ(print({}, true), "session 5  state up  avg 300ms\nsession 1234  avg 1.5ms\n");
    options json;
    json.json = true;
    const std::string listing =
        R"([{"discriminator":5,"packet":{"state":"up","length":66},"avg_period":300000,)"
        R"("last_rx_time":{"sec":100,"nsec":0}},)"
        R"({"discriminator":1234,"avg_period":1500,"last_rx_time":{"sec":0,"nsec":0}}])"
        "\n";
    EXPECT_EQ(print(json), listing);
    EXPECT_EQ(print(json, true), listing);
}

// The column order is the records', whichever of them comes first.
TEST(printer, columns_of_incomplete_records_fall_into_place)
{
    std::vector<record> records = two_records();
    std::swap(records[0], records[1]);
    std::ostringstream out;
    const options options;
    printer printer(options, out);
    printer.list(records);
    printer.finish();
    EXPECT_EQ(out.str(), "SESSION  STATE    AVG\n"
                         "   1234  -      1.5ms\n"
                         "      5  up     300ms\n");
}

TEST(printer, empty_list_is_an_array_in_json_and_nothing_for_people)
{
    for (const bool json : {false, true}) {
        options options;
        options.json = json;
        std::ostringstream out;
        printer printer(options, out);
        printer.list({});
        printer.finish();
        EXPECT_EQ(out.str(), json ? "[]\n" : "");
    }
}

TEST(printer, output_that_fails_is_an_error)
{
    const options options;
    std::ofstream full("/dev/full");
    printer printer(options, full);
    printer.list(two_records());
    EXPECT_THROW(printer.finish(), kelm::error);
}

// A file that goes with the test.
class temporary_file
{
  public:
    explicit temporary_file(const std::string &content)
    {
        const int fd = mkstemp(path_.data());
        EXPECT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
        close(fd);
    }
    ~temporary_file() { unlink(path_.c_str()); }
    const std::string &path() const { return path_; }

  private:
    std::string path_ = testing::TempDir() + "kelmctl-test-XXXXXX";
};

TEST(key_file, is_read_whole_but_for_a_last_line_break)
{
    const auto key = [](const std::string &content) {
        const temporary_file file(content);
        const kelm::bytes read = read_key(file.path());
        return std::string(read.begin(), read.end());
    };
    EXPECT_EQ(key("secret\n"), "secret");
    EXPECT_EQ(key("secret\n\n"), "secret\n");
    EXPECT_EQ(key(std::string("\0\xff ", 3)), std::string("\0\xff ", 3));
    EXPECT_EQ(key(""), "");
    EXPECT_EQ(key(std::string(4096, 'k')).size(), 4096U);
    EXPECT_THROW(key(std::string(4097, 'k')), kelm::error);
    EXPECT_THROW(read_key("/nonexistent/key"), kelm::error);
}

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
