// SPDX-License-Identifier: GPL-2.0
//
// The kernel log's lines go into kelmd's log, without their level.
#include "platform/printk.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <execinfo.h>
#include <string_view>

#include "platform/user/host.h"

namespace
{

using line_buffer = std::array<char, 1024>;

std::string_view without_level_and_newline(std::string_view text)
{
    if (text.size() >= 2 && text[0] == '\001')
        text.remove_prefix(2);
    if (text.ends_with('\n'))
        text.remove_suffix(1);
    return text;
}

void log_backtrace()
{
    std::array<void *, 16> frames{};
    const int depth = backtrace(frames.data(), static_cast<int>(frames.size()));
    char **const names = backtrace_symbols(frames.data(), depth);
    if (names == nullptr)
        return;
    for (int i = 1; i < depth; ++i)
        kelmd::the_host().log.append(std::string("  ") + names[i]);
    std::free(static_cast<void *>(names));
}

} // namespace

void printk(const char *fmt, ...)
{
    line_buffer text{};
    va_list arguments;
    va_start(arguments, fmt);
    std::vsnprintf(text.data(), text.size(), fmt, arguments);
    va_end(arguments);
    kelmd::the_host().log.append(without_level_and_newline(text.data()));
}

void WARN(const char *fmt, ...)
{
    line_buffer text{};
    va_list arguments;
    va_start(arguments, fmt);
    std::vsnprintf(text.data(), text.size(), fmt, arguments);
    va_end(arguments);
    kelmd::the_host().log.append(std::string("WARNING: ") +
                                 std::string(without_level_and_newline(text.data())));
    log_backtrace();
}
