// SPDX-License-Identifier: GPL-2.0
//
// Pseudo-random numbers.
#pragma once

#include <cstdint>

#include "platform/label.h"

extern "C" {

// Uniform over 32 bits, no cryptographic quality. Any context.
[[nodiscard]] std::uint32_t prandom_u32() KELM_PLATFORM(prandom_u32);
}
