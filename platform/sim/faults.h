// SPDX-License-Identifier: GPL-2.0
//
// Services that fail on demand.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace sim
{

enum class service {
    allocation, // by the engine, buffers included
    send,
    udp_socket, // creation, as the next two
    raw_socket,
    packet_socket,
    bind,
    netlink_socket,
    notifier,         // registration
    thread,           // creation
    skb_reallocation, // pskb_expand_head, and skb_linearize_cow where it has something to do
    count
};

class fault_plan
{
  public:
    static constexpr std::uint64_t always = ~std::uint64_t{0};

    // From the nth use from now on (1 is the next one), `times` uses fail with `error`.
    void plan(service which, int error, std::uint64_t nth, std::uint64_t times)
    {
        entry &e = of(which);
        e.error = error;
        e.first = e.uses + nth;
        e.times = times;
    }

    // Counts a use and returns the error that it shall fail with, or 0.
    [[nodiscard]] int use(service which)
    {
        entry &e = of(which);
        ++e.uses;
        if (e.uses < e.first || e.uses - e.first >= e.times)
            return 0;
        ++e.failed;
        return e.error;
    }

    [[nodiscard]] std::uint64_t uses(service which) const { return entry_of(which).uses; }
    [[nodiscard]] std::uint64_t failed(service which) const { return entry_of(which).failed; }

  private:
    struct entry {
        std::uint64_t uses = 0;
        std::uint64_t failed = 0;
        std::uint64_t first = always;
        std::uint64_t times = 0;
        int error = 0;
    };

    entry &of(service which) { return entries_[static_cast<std::size_t>(which)]; }
    [[nodiscard]] const entry &entry_of(service which) const
    {
        return entries_[static_cast<std::size_t>(which)];
    }

    std::array<entry, static_cast<std::size_t>(service::count)> entries_;
};

} // namespace sim
