// SPDX-License-Identifier: GPL-2.0
//
// In strict mode, how many packets without a session a vrf passes up: at once those of all the
// peers of a link that come up together, and from then on a rate that an agent can bear.
#pragma once

#include <atomic>
#include <cstdint>

class pass_up_limit
{
  public:
    // Whether one more may be passed up at this time, in microseconds modulo 2^32. Any context, on
    // several processors at once.
    [[nodiscard]] bool admit(std::uint32_t now)
    {
        std::uint32_t paid_until = paid_until_.load(std::memory_order_relaxed);
        std::uint32_t ahead;
        do {
            ahead = paid_until - now;
            if (ahead > longest_ahead) // it is in the past
                ahead = 0;
            if (ahead + cost > longest_ahead)
                return false;
        } while (!paid_until_.compare_exchange_weak(paid_until, now + ahead + cost,
                                                    std::memory_order_relaxed));
        return true;
    }

  private:
    static constexpr std::uint32_t cost = 250; // microseconds from one to the next: 4,000 a second
    static constexpr std::uint32_t longest_ahead = 4096 * cost;

    std::atomic<std::uint32_t> paid_until_{};
};
