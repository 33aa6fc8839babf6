// SPDX-License-Identifier: GPL-2.0
//
// The engine's memory: every block is listed with the code that asked for it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace sim
{

struct alignas(16) block_header {
    static constexpr std::size_t max_callers = 6;

    block_header *next;
    block_header *prev;
    std::size_t size;
    std::uint32_t magic;
    std::array<void *, max_callers> callers; // innermost first, null where unknown
};

class heap
{
  public:
    heap();
    heap(const heap &) = delete;
    heap &operator=(const heap &) = delete;

    // Uninitialised, at a multiple of the alignment.
    [[nodiscard]] void *allocate(std::size_t size, std::size_t alignment);
    void release(const void *memory);

    // What no block may hold when it is released; nothing if empty. A failure otherwise.
    std::span<const std::uint8_t> secret;

    [[nodiscard]] std::size_t bytes() const { return total_; }

    // A failure for each block that is still there; then gives them back.
    void report_leaks();

  private:
    block_header list_; // a ring
    std::size_t total_ = 0;
};

} // namespace sim
