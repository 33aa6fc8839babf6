// SPDX-License-Identifier: GPL-2.0
#ifndef LIBKELM_BYTES_H
#define LIBKELM_BYTES_H

#include <cstdint>
#include <span>
#include <vector>

namespace kelm
{

// In a packet or message.
using bytes = std::vector<uint8_t>;
// Somebody else's bytes.
using byte_view = std::span<const uint8_t>;

} // namespace kelm

#endif
