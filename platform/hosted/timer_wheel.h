// SPDX-License-Identifier: GPL-2.0
//
// A hierarchical timing wheel on 64-bit ticks: exact to the tick at any distance, constant cost
// to arm and to cancel.
//
// Near timers, which are due less than 1024 ticks after the wheel's position, lie in the bucket of
// their tick modulo 1024; when the position reaches it, they are due. A far timer lies at the level
// of the highest digit in which its due tick differs from the position, in the bucket of its own
// digit there. Digits are of 6 bits, above those of the near ticks. When the position reaches such
// a bucket, its timers move down.
//
// A pending timer that is armed for a later tick stays in its bucket, which costs a store: what is
// restarted again and again, as detection timers are, is filed anew only when its bucket is
// reached.
//
// A wheel does no locking; its host does. The host also decides what "now" is.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "platform/timer.h"

namespace hosted
{

struct wheel_link {
    wheel_link *next;
    wheel_link *prev;
};

// What a timer_list holds. A host may derive from it what it needs besides.
struct wheel_timer : wheel_link {
    std::uint64_t due;     // the tick at which it fires, not before its bucket's; while pending
    std::uint64_t expires; // the tick it was last armed for, 0 if never
    timer_function function;

    [[nodiscard]] bool pending() const { return next != nullptr; }
};

class timer_wheel
{
  public:
    static constexpr std::uint64_t never = std::numeric_limits<std::uint64_t>::max();

    // Everything up to and including tick now counts as past.
    explicit timer_wheel(std::uint64_t now);
    timer_wheel(const timer_wheel &) = delete;
    timer_wheel &operator=(const timer_wheel &) = delete;

    // Arms or moves a timer. It becomes due at tick expires, but not before now + 1. Returns
    // whether it was pending.
    bool arm(wheel_timer &timer, std::uint64_t expires, std::uint64_t now);

    // Returns whether it was pending.
    bool cancel(wheel_timer &timer);

    // Takes one timer out that is due at tick up_to or before, earliest tick first and those of one
    // tick in any order, or returns null when there is none left. One pass asks with the same up_to
    // until it gets null; what is armed meanwhile, with a now of at least up_to, is left to a later
    // pass. choice selects among the timers due at that tick, modulo their number.
    wheel_timer *pop_due(std::uint64_t up_to, std::uint64_t choice = 0);

    // No timer is due before this tick: sleep until then and ask again. Close timers give their
    // own tick, distant ones a tick at which they move down, and those that were armed again an
    // earlier one. never without timers.
    [[nodiscard]] std::uint64_t next_event() const;

    [[nodiscard]] std::size_t size() const { return count_; }

  private:
    static constexpr unsigned int near_bits = 10;
    static constexpr unsigned int near_count = 1U << near_bits;
    static constexpr unsigned int digit_bits = 6;
    static constexpr unsigned int digit_count = 1U << digit_bits;
    static constexpr unsigned int level_count = (64 - near_bits + digit_bits - 1) / digit_bits;
    static constexpr unsigned int bucket_count = near_count + level_count * digit_count;

    void file(wheel_timer &timer);
    void file_in(unsigned int bucket, wheel_timer &timer);
    void take_out(wheel_timer &timer);
    [[nodiscard]] std::uint64_t next_near() const;
    [[nodiscard]] std::uint64_t next_far() const;
    void move_down(std::uint64_t tick);
    wheel_timer &choose_due(std::uint64_t choice);

    std::uint64_t position_; // every timer due up to here is in the due list, perhaps with others
    std::size_t count_ = 0;
    // One bit for each bucket in use; 64 of them are the buckets of one far level.
    std::array<std::uint64_t, bucket_count / 64> occupied_{};
    std::array<wheel_link, bucket_count> buckets_; // the near ones, then those of each level
    wheel_link due_list_;
};

} // namespace hosted
