// SPDX-License-Identifier: GPL-2.0
#include "platform/random.h"

#include "platform/sim/machine.h"

std::uint32_t prandom_u32()
{
    sim::machine &s = sim::the_machine();
    if (s.next_randoms.empty())
        return static_cast<std::uint32_t>(s.prandom.next() >> 32);
    const std::uint32_t number = s.next_randoms.front();
    s.next_randoms.pop_front();
    return number;
}
