// SPDX-License-Identifier: GPL-2.0
//
// Memory, from the C library. It never waits, so both kinds of allocation are one.
#include "platform/memory.h"

#include <cstdlib>

#include "platform/user/context.h"

namespace
{

void check(gfp_t gfp)
{
    if (gfp == GFP_KERNEL)
        kelmd::assert_may_sleep("kmalloc(GFP_KERNEL)");
}

} // namespace

void *kmalloc(std::size_t size, gfp_t gfp)
{
    check(gfp);
    return std::malloc(size);
}

void *kzalloc(std::size_t size, gfp_t gfp)
{
    check(gfp);
    return std::calloc(1, size);
}

void kfree(const void *ptr)
{
    std::free(const_cast<void *>(ptr));
}
