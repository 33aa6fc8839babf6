// SPDX-License-Identifier: GPL-2.0
#include "platform/user/context.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

// Past the log: the process is about to end, and its last words must not be lost.
void kelmd::context_violated(const char *fmt, ...)
{
    va_list arguments;
    va_start(arguments, fmt);
    std::fputs("kelmd: ", stderr);
    std::vfprintf(stderr, fmt, arguments);
    std::fputc('\n', stderr);
    va_end(arguments);
    std::abort();
}
