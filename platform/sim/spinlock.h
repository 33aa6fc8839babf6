// SPDX-License-Identifier: GPL-2.0
//
// What a spinlock_t holds in the simulation.
#pragma once

#include <cstdint>

namespace sim
{

struct context;

struct lock {
    static constexpr std::uint32_t magic_number = 0x10c4ed;

    std::uint32_t magic;
    std::uint16_t waiters;
    std::uint8_t rank;
    bool bh; // taken with bottom halves off
    context *holder;
    const char *name;
};

} // namespace sim
