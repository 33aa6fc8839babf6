// SPDX-License-Identifier: GPL-2.0
#include <linux/random.h>

#include "platform/linux/glue.h"

uint32_t kelm_prandom_u32(void)
{
    return get_random_u32();
}
