// SPDX-License-Identifier: GPL-2.0
#pragma once

#include <cstdint>
#include <ctime>

namespace kelmd
{

// When a tick begins, on CLOCK_MONOTONIC; for ticks up to a century ahead.
[[nodiscard]] timespec tick_start(std::uint64_t tick);

} // namespace kelmd
