// SPDX-License-Identifier: GPL-2.0
//
// kelmctl: what people type and what they see, where no kelmd is needed.
#include <fstream>

#include "kelmctl/command.h"
#include "kelmctl/printer.h"
#include "kelmctl/values.h"
#include "kelmctl_line.h"
#include "libkelm/error.h"

namespace
{

using namespace kelmctl;
using namespace kelmctl_line;

TEST(values, durations)
{
    struct {
        const char *text;
        std::uint32_t microseconds;
        const char *told;
    } const cases[] = {
        {"0", 0, "0"},
        {"0ms", 0, "0"},
        {"0.3ms", 300, "300us"},
        {"1000us", 1000, "1ms"},
        {"98.12ms", 98'120, "98.12ms"},
        {".5s", 500'000, "500ms"},
        {"999.949ms", 999'949, "999.9ms"},
        {"999.95ms", 999'950, "1s"},
        {"2.05min", 123'000'000, "2min 3s"},
        {"4294.967295s", 0xffffffff, "1h 11min"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(parse_duration("interval", c.text), c.microseconds) << c.text;
        EXPECT_EQ(format_duration(c.microseconds), c.told) << c.text;
    }
    EXPECT_EQ(format_duration(97'200'000'000), "1d 3h");
    for (const char *bad : {"", "300", "ms", "-1ms", "1e3ms", "4294.967296s", "300 ms", "300msx",
                            "nan", "infs", "0x10ms", "99999999999999999999s"})
        EXPECT_THROW(parse_duration("interval", bad), usage_error) << bad;
}

TEST(values, numbers_and_lists)
{
    EXPECT_EQ(parse_number("ttl", "255", 0, 255), 255U);
    EXPECT_EQ(parse_number("ttl", "0x1F", 0, 255), 31U);
    for (const char *bad : {"", "256", "-1", "1 ", "0x", "1x", "4294967296"})
        EXPECT_THROW(parse_number("ttl", bad, 0, 255), usage_error) << bad;
    EXPECT_EQ(parse_discriminators("5,0x10,4294967295"),
              (std::vector<std::uint32_t>{5, 16, 0xffffffff}));
    for (const char *bad : {"", "5,", ",5", "5,,6", "0", "5 6"})
        EXPECT_THROW(parse_discriminators(bad), usage_error) << bad;
}

TEST(command_line, exit_status_and_where_things_are_said)
{
    struct {
        const char *line;
        exit_status status;
        const char *said; // on the standard output after success, else on the error output
    } const cases[] = {
        {"--version", success, "kelmctl "},
        {"-h", success, "usage: kelmctl"},
        {"", usage, "usage: kelmctl"},
        {"session help", success, "usage: kelmctl [OPTIONS] session"},
        {"session --help", success, "delete DISCRIMINATOR"},
        {"sess se help", success, "multiplier N"},
        {"packet set 5 local 10.0.0.1 help", success, "dst-mac MAC"},
        {"s show", usage, "may be any of: session, statistics, sync"},
        {"nothing", usage, "there is no object 'nothing'"},
        {"session delete", usage, "DISCRIMINATOR is missing"},
        {"session delete 1 2", usage, "'2': unexpected argument"},
        {"session set 5", usage, "'interval' is missing"},
        {"session set 5 interval", usage, "'interval' requires a value: TIME"},
        {"session set 5 interval rtt", usage, "'rtt' is not a time"}, // rtt is a parameter too
        {"session set 5 interval 1s rtt rtt", usage, "'rtt' is given twice"},
        {"session set 0 interval 1s", usage, "discriminator: '0' is not a number from 1 to"},
        {"session set 5 interval 20s multiplier 255", usage, "below 4294 seconds"},
        {"session set 5 interval 0", usage, "more than 0"},
        {"session set 5 interval 1s latch 1,2,3,4,5,6,7,8,9", usage, "8 packets"},
        {"session set 5 interval 1s auth keyed-md5", usage, "'key-file' is missing"},
        {"session set 5 interval 1s key-file /dev/null", usage, "requires an 'auth' type"},
        {"session set 5 interval 1s auth sha2", usage, "is not one of: none, password"},
        {"packet set 5 interval 1s local fe80::1 peer fe80::2", usage, "requires 'dev'"},
        {"packet set 5 interval 1s local 10.0.0.1 peer 10.0.0.2 dst-mac 02:0:0:0:0:1", usage,
         "'dev' is missing"},
        {"packet set 5 interval 1s local 10.0.0.1 peer fd00::1", failure, "both be IPv4"},
        {"debug set 4", usage, "0 to 3"},
        {"-A statistics show 5 clear", usage, "-A cannot be combined"},
        {"-x", usage, "there is no option '-x'"},
        {"-n", usage, "option '-n' requires a value"},
        {"-n kelm-no-such-name session", failure, "'ip netns' lists"},
    };
    for (const auto &c : cases) {
        const outcome got = run_line(c.line);
        EXPECT_EQ(got.status, c.status) << c.line;
        const auto &[said, silent] =
            c.status == success ? std::tie(got.out, got.err) : std::tie(got.err, got.out);
        EXPECT_NE(said.find(c.said), std::string::npos) << c.line << '\n' << said;
        EXPECT_EQ(silent, "") << c.line;
    }
}

record first()
{
    return record()
        .number("discriminator", "session", 5)
        .text("packet.state", "state", "up")
        .duration("avg_period", "avg", 300'000)
        .json("packet.length", std::uint64_t{66})
        .full()
        .age("last_rx_time", "last", {100, 0}, {100, 12'000'000});
}

record second()
{
    return record()
        .number("discriminator", "session", 1234)
        .duration("avg_period", "avg", 1500)
        .full()
        .age("last_rx_time", "last", {0, 0}, {100, 0});
}

std::string print(bool options::*form, std::vector<record> records)
{
    options options;
    if (form != nullptr)
        options.*form = true;
    std::ostringstream out;
    printer printer(options, out);
    printer.list(std::move(records));
    printer.finish();
    return out.str();
}

TEST(printer, one_record_serves_every_form)
{
    // The column order is the records', whichever of them comes first.
    EXPECT_EQ(print(nullptr, {second(), first()}), "SESSION  STATE    AVG\n"
                                                   "   1234  -      1.5ms\n"
                                                   "      5  up     300ms\n");
    EXPECT_EQ(print(&options::statistics, {first(), second()}), "session 5\n"
                                                                "    state    up\n"
                                                                "    avg      300ms\n"
                                                                "    last     12ms ago\n"
                                                                "\n"
                                                                "session 1234\n"
                                                                "    avg      1.5ms\n"
                                                                "    last     never\n");
    EXPECT_EQ(print(&options::json, {first(), second()}),
              R"([{"discriminator":5,"packet":{"state":"up","length":66},"avg_period":300000,)"
              R"("last_rx_time":{"sec":100,"nsec":0}},)"
              R"({"discriminator":1234,"avg_period":1500,"last_rx_time":{"sec":0,"nsec":0}}])"
              "\n");
    std::ostringstream line;
    printer(options{}, line).lines({first()});
    EXPECT_EQ(line.str(), "session 5  state up  avg 300ms\n");
    EXPECT_EQ(print(nullptr, {}), "");
    EXPECT_EQ(print(&options::json, {}), "[]\n");
}

TEST(printer, output_that_fails_is_an_error)
{
    const options options;
    std::ofstream full("/dev/full");
    printer printer(options, full);
    printer.list({first()});
    EXPECT_THROW(printer.finish(), kelm::error);
}

TEST(key_file, is_read_whole_but_for_a_last_line_break)
{
    const auto key = [](const std::string &content) {
        const temporary_file file(content);
        const kelm::bytes read = read_key(file.path());
        return std::string(read.begin(), read.end());
    };
    EXPECT_EQ(key("secret\n\n"), "secret\n");
    EXPECT_EQ(key(std::string("\0\xff ", 3)), std::string("\0\xff ", 3));
    EXPECT_EQ(key(""), "");
    EXPECT_EQ(key(std::string(4096, 'k')).size(), 4096U);
    EXPECT_THROW(key(std::string(4097, 'k')), kelm::error);
    EXPECT_THROW(read_key("/nonexistent/key"), kelm::error);
}

} // namespace
