// SPDX-License-Identifier: GPL-2.0
//
// kelmctl's completion and its manual page against the command table.
#include <algorithm>
#include <fstream>
#include <map>
#include <regex>
#include <set>

#include "kelmctl/command.h"
#include "kelmctl/complete.h"
#include "kelmctl/options.h"
#include "kelmctl_line.h"

namespace
{

using namespace kelmctl;

using words = std::vector<std::string>;

// What the shell gets for a line; the last word ends where the line does.
words completed(const std::string &line)
{
    words parts = {""};
    for (const char c : line)
        if (c == ' ')
            parts.emplace_back();
        else
            parts.back() += c;
    std::vector<char *> argv;
    for (auto &part : parts)
        argv.push_back(part.data());
    return complete(argv);
}

bool contains(const words &list, std::string_view word)
{
    return std::ranges::find(list, word) != list.end();
}

// Every value that is offered is one that is understood.
TEST(completion, offers_values_that_are_understood)
{
    std::size_t offered = 0;
    for (const auto &object : objects)
        for (const auto &command : object.commands)
            for (const auto &parameter : command.parameters) {
                if (parameter.value.empty() || parameter.value == "IFNAME")
                    continue;
                const std::string line = std::string(object.name) + ' ' +
                                         std::string(command.name) + ' ' +
                                         std::string(parameter.name) + ' ';
                for (const auto &value : completed(line)) {
                    ++offered;
                    const auto got = kelmctl_line::run_line(line + value);
                    EXPECT_EQ(got.err.find("'" + value + "' is not"), std::string::npos) << got.err;
                }
            }
    EXPECT_GT(offered, 40U);
}

TEST(completion, cases)
{
    EXPECT_EQ(completed("ses"), words{"session"});
    EXPECT_EQ(completed("-j ses"), words{"session"});
    EXPECT_EQ(completed("session set 5 rtt rt"), words{}); // not twice
    EXPECT_EQ(completed("session se"), words{"set"});
    EXPECT_EQ(completed("session set 5 timer o"), (words{"on", "off"}));
    EXPECT_EQ(completed("packet set 5 state up latch-state i"), words{"init"});
    EXPECT_EQ(completed("session set 5 interval "), words{});
    EXPECT_EQ(completed("packet set key-file "), words{}); // files are the shell's
    EXPECT_EQ(completed("nonsense "), words{});
    EXPECT_EQ(completed("--net"), words{"--netns"});
    EXPECT_EQ(completed("-n kelm-no-such-name session set dev l"), words{});
    EXPECT_TRUE(contains(completed("session set 5 dev "), "lo"));
    EXPECT_EQ(complete({}), words{});
    EXPECT_EQ(kelmctl_line::run_line("__complete ses").out, "session\n");
}

using word_set = std::set<std::string>;

TEST(manual_page, tells_everything_in_the_table)
{
    std::ifstream file(KELM_DOCS "/kelmctl.8");
    std::string page{std::istreambuf_iterator<char>(file), {}};
    page = std::regex_replace(page, std::regex(R"(\\f.|\\)"), "");
    std::map<std::string, word_set> sections; // "" for the whole page
    std::string section;
    std::istringstream lines(page);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(".SS "))
            section = line.substr(4);
        const std::regex word("[-a-z0-9]+");
        for (std::sregex_iterator at(line.begin(), line.end(), word), end; at != end; ++at)
            for (const std::string &of : {std::string(), section})
                sections[of].insert(at->str());
    }
    for (const auto &object : objects) {
        const word_set &told = sections[std::string(object.name)];
        for (const auto &command : object.commands) {
            EXPECT_TRUE(told.contains(std::string(command.name))) << command.name;
            for (const auto &parameter : command.parameters)
                EXPECT_TRUE(told.contains(std::string(parameter.name))) << parameter.name;
        }
    }
    for (const auto &option : option_table)
        EXPECT_TRUE(sections[""].contains(std::string("--") + option.name)) << option.name;
}

} // namespace
