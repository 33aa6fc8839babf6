// SPDX-License-Identifier: GPL-2.0
//
// The simulation's own randomness: the same seed gives the same numbers everywhere.
#pragma once

#include <cstdint>

namespace sim
{

class random_source
{
  public:
    explicit random_source(std::uint64_t seed) : state_(seed) {}

    // SplitMix64.
    std::uint64_t next()
    {
        state_ += 0x9e3779b97f4a7c15;
        std::uint64_t mixed = state_;
        mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9;
        mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111eb;
        return mixed ^ (mixed >> 31);
    }

    // 0 to n - 1.
    std::uint64_t below(std::uint64_t n) { return next() % n; }

  private:
    std::uint64_t state_;
};

} // namespace sim
