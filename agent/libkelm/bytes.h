// SPDX-License-Identifier: GPL-2.0
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace kelm
{

// In a packet or message.
using bytes = std::vector<std::uint8_t>;
// Bytes that others own.
using byte_view = std::span<const std::uint8_t>;

} // namespace kelm
