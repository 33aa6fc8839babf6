// SPDX-License-Identifier: GPL-2.0
#include "platform/memory.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <execinfo.h>
#include <new>
#include <span>
#include <string>

#include "platform/sim/failure.h"
#include "platform/sim/machine.h"
#include "platform/sim/memory.h"

namespace sim
{

namespace
{

constexpr std::uint32_t in_use = 0x5ca1ab1e;

// In front of every block; the header is at the end of it.
constexpr std::size_t header_room = 2 * cache_line;
static_assert(sizeof(block_header) <= header_room);

block_header &header_of(const void *memory)
{
    return *(static_cast<block_header *>(const_cast<void *>(memory)) - 1);
}

// Walks the chain of frame pointers, as far as it plausibly is one.
__attribute__((no_sanitize("address"), no_sanitize("undefined"))) void
record_callers(std::array<void *, block_header::max_callers> &callers)
{
    constexpr std::uintptr_t longest_frame = 16 * 1024;
    auto *frame = static_cast<void **>(__builtin_frame_address(0));
    for (void *&caller : callers) {
        caller = nullptr;
        if (frame == nullptr)
            continue;
        caller = frame[1];
        auto *next = static_cast<void **>(*frame);
        const bool plausible = next > frame && reinterpret_cast<std::uintptr_t>(next) -
                                                       reinterpret_cast<std::uintptr_t>(frame) <
                                                   longest_frame;
        frame = plausible ? next : nullptr;
    }
}

std::string describe(const block_header &block)
{
    std::string text = std::to_string(block.size) + " bytes leaked, allocated by";
    char **names = backtrace_symbols(block.callers.data(), block_header::max_callers);
    for (std::size_t i = 1; i < block_header::max_callers && block.callers[i] != nullptr; ++i)
        text += std::string("\n    ") + names[i];
    std::free(names);
    return text;
}

} // namespace

heap::heap() : list_{.next = &list_, .prev = &list_, .size = 0, .magic = 0, .callers = {}} {}

void *heap::allocate(std::size_t size, std::size_t alignment)
{
    const std::size_t whole = (header_room + size + alignment - 1) / alignment * alignment;
    // Malloc is much the faster where it will do.
    auto *start = static_cast<std::uint8_t *>(alignment <= alignof(std::max_align_t)
                                                  ? std::malloc(whole)
                                                  : std::aligned_alloc(alignment, whole));
    if (start == nullptr)
        fatal("out of memory");
    void *memory = start + header_room;
    auto *block = new (&header_of(memory)) block_header;
    block->size = size;
    block->magic = in_use;
    record_callers(block->callers);
    block->next = &list_;
    block->prev = list_.prev;
    list_.prev->next = block;
    list_.prev = block;
    total_ += size;
    return memory;
}

void heap::release(const void *memory)
{
    block_header &block = header_of(memory);
    if (block.magic != in_use)
        fatal("kfree of something that is not allocated");
    const std::span content(static_cast<const std::uint8_t *>(memory), block.size);
    if (!secret.empty() && !std::ranges::search(content, secret).empty())
        on_failure("a secret is left in memory that is released");
    block.magic = 0;
    block.prev->next = block.next;
    block.next->prev = block.prev;
    total_ -= block.size;
    std::free(static_cast<std::uint8_t *>(const_cast<void *>(memory)) - header_room);
}

void heap::report_leaks()
{
    while (list_.next != &list_) {
        on_failure(describe(*list_.next));
        release(list_.next + 1);
    }
}

} // namespace sim

namespace
{

// What fresh memory contains: code must not rely on zeroes that were not asked for.
constexpr int fresh_byte = 0xa5;

void *allocate(std::size_t size, std::size_t alignment, gfp_t gfp)
{
    sim::machine &s = sim::the_machine();
    if (gfp == GFP_KERNEL)
        s.expect_may_sleep("an allocation with GFP_KERNEL");
    if (s.unfailing == 0 && s.faults.use(sim::service::allocation) != 0)
        return nullptr;
    return s.memory.allocate(size, alignment);
}

} // namespace

void *kmalloc(std::size_t size, gfp_t gfp)
{
    void *memory = allocate(size, alignof(std::max_align_t), gfp);
    return memory != nullptr ? std::memset(memory, fresh_byte, size) : nullptr;
}

void *kzalloc(std::size_t size, gfp_t gfp)
{
    void *memory = allocate(size, cache_line, gfp);
    return memory != nullptr ? std::memset(memory, 0, size) : nullptr;
}

void kfree(const void *ptr)
{
    if (ptr != nullptr)
        sim::the_machine().memory.release(ptr);
}
