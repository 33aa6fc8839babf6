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
    unsigned int rank;
    const char *name;
    context *holder;
    unsigned int waiters;
    bool bh; // taken with bottom halves off
};

} // namespace sim
