// SPDX-License-Identifier: GPL-2.0
//
// Memory, from the C library. It never waits, so both kinds of allocation are one.
#include "platform/memory.h"

#include <cstdlib>
#include <cstring>

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
    void *memory = nullptr;
    if (size < cache_line)
        return std::calloc(1, size);
    if (posix_memalign(&memory, cache_line, size) != 0)
        return nullptr;
    return std::memset(memory, 0, size);
}

void kfree(const void *ptr)
{
    std::free(const_cast<void *>(ptr));
}
