// SPDX-License-Identifier: GPL-2.0
#include "platform/sim/failure.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace sim
{

namespace
{

[[gnu::format(printf, 1, 0)]] std::string formatted(const char *format, std::va_list arguments)
{
    char *text = nullptr;
    if (vasprintf(&text, format, arguments) < 0)
        return format;
    std::string result = text;
    std::free(text);
    return result;
}

[[noreturn]] void print_and_end(const std::string &text)
{
    std::fprintf(stderr, "simulation: %s\n", text.c_str());
    std::abort();
}

} // namespace

std::function<void(const std::string &)> on_failure = print_and_end;

void failure(const char *format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    const std::string text = formatted(format, arguments);
    va_end(arguments);
    on_failure(text);
}

void fatal(const char *format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    const std::string text = formatted(format, arguments);
    va_end(arguments);
    print_and_end(text);
}

} // namespace sim
