// SPDX-License-Identifier: GPL-2.0
#include "platform/memory.h"

#include <cstdlib>
#include <cstring>
#include <execinfo.h>
#include <new>
#include <string>

#include "platform/sim/failure.h"
#include "platform/sim/memory.h"
#include "platform/sim/state.h"

namespace sim
{

namespace
{

constexpr std::uint32_t IN_USE = 0x5ca1ab1e;

// What fresh memory contains: nobody may rely on zeroes that were not asked for.
constexpr int FRESH = 0xa5;

// Walks the chain of frame pointers, as far as it plausibly is one.
__attribute__((no_sanitize("address"), no_sanitize("undefined"))) void
record_callers(std::array<void *, block_header::MAX_CALLERS> &callers)
{
    constexpr std::uintptr_t LONGEST_FRAME = 16 * 1024;
    auto *frame = static_cast<void **>(__builtin_frame_address(0));
    for (void *&caller : callers) {
        caller = nullptr;
        if (frame == nullptr)
            continue;
        caller = frame[1];
        auto *next = static_cast<void **>(*frame);
        const bool plausible = next > frame && reinterpret_cast<std::uintptr_t>(next) -
                                                       reinterpret_cast<std::uintptr_t>(frame) <
                                                   LONGEST_FRAME;
        frame = plausible ? next : nullptr;
    }
}

std::string describe(const block_header &block)
{
    std::string text = std::to_string(block.size) + " bytes leaked, allocated by";
    char **names = backtrace_symbols(block.callers.data(), block_header::MAX_CALLERS);
    for (std::size_t i = 1; i < block_header::MAX_CALLERS && block.callers[i] != nullptr; ++i)
        text += std::string("\n    ") + names[i];
    std::free(names);
    return text;
}

} // namespace

heap::heap() : list{.next = &list, .prev = &list, .size = 0, .magic = 0, .callers = {}} {}

void *heap::allocate(std::size_t size)
{
    auto *block = static_cast<block_header *>(std::malloc(sizeof(block_header) + size));
    if (block == nullptr)
        fatal("out of memory");
    block->size = size;
    block->magic = IN_USE;
    record_callers(block->callers);
    block->next = &list;
    block->prev = list.prev;
    list.prev->next = block;
    list.prev = block;
    ++count;
    total += size;
    std::memset(block + 1, FRESH, size);
    return block + 1;
}

void heap::release(const void *memory)
{
    auto *block = static_cast<block_header *>(const_cast<void *>(memory)) - 1;
    if (block->magic != IN_USE)
        fatal("kfree of something that is not allocated");
    block->magic = 0;
    block->prev->next = block->next;
    block->next->prev = block->prev;
    --count;
    total -= block->size;
    std::free(block);
}

void heap::report_leaks()
{
    while (list.next != &list) {
        on_failure(describe(*list.next));
        release(list.next + 1);
    }
}

} // namespace sim

namespace
{

void *allocate(std::size_t size, gfp_t gfp)
{
    sim::state &s = sim::the();
    if (gfp == GFP_KERNEL)
        s.expect_may_sleep("an allocation with GFP_KERNEL");
    if (s.own_allocations == 0 && s.faults.use(sim::service::allocation) != 0)
        return nullptr;
    return s.memory.allocate(size);
}

} // namespace

void *kmalloc(std::size_t size, gfp_t gfp)
{
    return allocate(size, gfp);
}

void *kzalloc(std::size_t size, gfp_t gfp)
{
    void *memory = allocate(size, gfp);
    if (memory != nullptr)
        std::memset(memory, 0, size);
    return memory;
}

void kfree(const void *ptr)
{
    if (ptr != nullptr)
        sim::the().memory.release(ptr);
}
