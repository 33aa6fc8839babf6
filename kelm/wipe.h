// SPDX-License-Identifier: GPL-2.0
//
// The end of secrets: keys, passwords, and what was computed from them.
#pragma once

#include <cstddef>
#include <cstring>

// Zeroes memory that nobody reads any more, for which a compiler would see no reason.
inline void wipe(void *memory, std::size_t size)
{
    std::memset(memory, 0, size);
    asm volatile("" : : "r"(memory) : "memory");
}
