// SPDX-License-Identifier: GPL-2.0
//
// The layout of records by what is used together. It is tuned for hosts whose locks and timers are
// as small as those of a kernel without lock debugging, and correct on all others.
#pragma once

#include <cstddef>

#include "platform/memory.h"

// How much of its room a lock uses that nobody waits for, and a timer.
inline constexpr std::size_t hot_lock_size = 24;
inline constexpr std::size_t hot_timer_size = 40;

// Whether the bytes of a record from first up to end, exclusively, share a cache line.
constexpr bool in_one_line(std::size_t first, std::size_t end)
{
    return first / cache_line == (end - 1) / cache_line;
}

// Has the processor fetch the cache lines of things that will soon be written to, all at once;
// otherwise it waits for one after the other.
template<typename... Things>
void prefetch(const Things &...things)
{
    (__builtin_prefetch(&things, 1), ...);
}
