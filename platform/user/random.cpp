// SPDX-License-Identifier: GPL-2.0
#include "platform/random.h"

#include <array>
#include <cstddef>
#include <cstdlib>

// The C library makes a system call for every request, so each thread takes its numbers in stock.
std::uint32_t prandom_u32()
{
    thread_local std::array<std::uint32_t, 256> stock;
    thread_local std::size_t left = 0;
    if (left == 0) {
        arc4random_buf(stock.data(), sizeof stock);
        left = stock.size();
    }
    return stock[--left];
}
