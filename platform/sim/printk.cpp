// SPDX-License-Identifier: GPL-2.0
#include "platform/printk.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/sim/machine.h"

namespace
{

constexpr std::size_t longest_log = 100'000; // lines
constexpr int warning_level = 4;

void add_line(int level, std::string text)
{
    sim::machine &s = sim::the_machine();
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    static const bool echo = std::getenv("KELM_SIM_LOG") != nullptr;
    if (echo)
        std::fprintf(stderr, "[%llu] %s\n", static_cast<unsigned long long>(s.clock.tick),
                     text.c_str());
    s.log.push_back({level, std::move(text)});
    if (s.log.size() > longest_log)
        s.log.pop_front();
}

} // namespace

void printk(const char *fmt, ...)
{
    char text[1024];
    std::va_list arguments;
    va_start(arguments, fmt);
    std::vsnprintf(text, sizeof text, fmt, arguments);
    va_end(arguments);
    if (text[0] == KERN_INFO[0] && text[1] >= '0' && text[1] <= '7')
        add_line(text[1] - '0', text + 2);
    else
        sim::failure("a log line without a level: %s", text);
}

void WARN(const char *fmt, ...)
{
    char text[1024];
    std::va_list arguments;
    va_start(arguments, fmt);
    std::vsnprintf(text, sizeof text, fmt, arguments);
    va_end(arguments);
    add_line(warning_level, text);
    std::vector<std::string> &expected = sim::the_machine().expected_warnings;
    const auto found = std::find_if(expected.begin(), expected.end(), [&text](const auto &part) {
        return std::string_view(text).find(part) != std::string_view::npos;
    });
    if (found == expected.end())
        sim::failure("kernel warning: %s", text);
    else
        expected.erase(found);
}
