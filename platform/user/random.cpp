// SPDX-License-Identifier: GPL-2.0
#include "platform/random.h"

#include <cstdlib>

std::uint32_t prandom_u32()
{
    return arc4random();
}
