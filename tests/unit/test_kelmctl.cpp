// SPDX-License-Identifier: GPL-2.0
//
// kelmctl: what people type and what they see.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "kelmctl/arguments.h"
#include "kelmctl/help.h"
#include "kelmctl/printer.h"
#include "kelmctl_line.h"
#include "libkelm/error.h"

namespace
{

using namespace kelmctl;
using namespace kelmctl_line;

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

} // namespace
