// SPDX-License-Identifier: GPL-2.0
//
// Memory.
#pragma once

#include <cstddef>

#include "platform/label.h"

// Whether an allocation may wait for memory: GFP_KERNEL only in a task that holds no
// spinlock, GFP_ATOMIC anywhere.
enum gfp_t : unsigned { GFP_ATOMIC, GFP_KERNEL };

inline constexpr std::size_t cache_line = 64;

extern "C" {

// size bytes aligned for any type, uninitialised (kmalloc) or zero (kzalloc); null when
// there are none. The caller owns them until kfree. A size of 0 gives a unique pointer. Zeroed
// memory of a cache line or more starts at one, where the host can see to that.
[[nodiscard]] void *kmalloc(std::size_t size, gfp_t gfp) KELM_PLATFORM(kmalloc);
[[nodiscard]] void *kzalloc(std::size_t size, gfp_t gfp) KELM_PLATFORM(kzalloc);

// Any context. Null is ignored.
void kfree(const void *ptr) KELM_PLATFORM(kfree);
}
