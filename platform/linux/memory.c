// SPDX-License-Identifier: GPL-2.0
#include <linux/slab.h>

#include "platform/linux/fault.h"
#include "platform/linux/glue.h"

/* A size of 0 would give a pointer that is not unique; failure is the engine's to report. */
void *kelm_kmalloc(size_t size, engine_gfp gfp)
{
    return fault_due() ? NULL : kmalloc(max_t(size_t, size, 1), kernel_gfp(gfp) | __GFP_NOWARN);
}

void *kelm_kzalloc(size_t size, engine_gfp gfp)
{
    return fault_due() ? NULL : kzalloc(max_t(size_t, size, 1), kernel_gfp(gfp) | __GFP_NOWARN);
}

void kelm_kfree(const void *ptr)
{
    kfree(ptr);
}
