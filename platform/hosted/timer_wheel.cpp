// SPDX-License-Identifier: GPL-2.0
#include "platform/hosted/timer_wheel.h"

#include <algorithm>
#include <bit>

namespace hosted
{

static_assert(sizeof(wheel_timer) <= KELM_TIMER_SIZE);

namespace
{

void make_empty(wheel_link &head)
{
    head.next = &head;
    head.prev = &head;
}

bool is_empty(const wheel_link &head)
{
    return head.next == &head;
}

void append(wheel_link &head, wheel_link &link)
{
    link.next = &head;
    link.prev = head.prev;
    head.prev->next = &link;
    head.prev = &link;
}

// Moves all of another list to the end.
void take_all(wheel_link &head, wheel_link &other)
{
    if (is_empty(other))
        return;
    other.next->prev = head.prev;
    other.prev->next = &head;
    head.prev->next = other.next;
    head.prev = other.prev;
    make_empty(other);
}

void unlink(wheel_link &link)
{
    link.prev->next = link.next;
    link.next->prev = link.prev;
    link.next = nullptr;
    link.prev = nullptr;
}

wheel_timer &timer_of(wheel_link &link)
{
    return static_cast<wheel_timer &>(link);
}

} // namespace

timer_wheel::timer_wheel(std::uint64_t now) : position_(now)
{
    for (wheel_link &head : buckets_)
        make_empty(head);
    make_empty(due_list_);
}

bool timer_wheel::arm(wheel_timer &timer, std::uint64_t expires, std::uint64_t now)
{
    const std::uint64_t due = std::max({expires, now + 1, position_ + 1});
    timer.expires = expires;
    if (timer.pending() && due >= timer.due) { // its bucket still comes first, and moves it on
        timer.due = due;
        return true;
    }
    const bool was_pending = cancel(timer);
    timer.due = due;
    file(timer);
    ++count_;
    return was_pending;
}

bool timer_wheel::cancel(wheel_timer &timer)
{
    if (!timer.pending())
        return false;
    take_out(timer);
    return true;
}

wheel_timer *timer_wheel::pop_due(std::uint64_t up_to, std::uint64_t choice)
{
    for (;;) {
        while (is_empty(due_list_)) {
            const std::uint64_t tick = next_event();
            if (tick > up_to || tick == never) {
                position_ = std::max(position_, up_to);
                return nullptr;
            }
            move_down(tick);
        }
        wheel_timer &timer = choose_due(choice);
        // The next one is here already; the one after it comes while this one's callback runs.
        __builtin_prefetch(timer.next->next, 1);
        if (timer.due <= position_) {
            take_out(timer);
            return &timer;
        }
        unlink(timer);
        file(timer);
    }
}

wheel_timer &timer_wheel::choose_due(std::uint64_t choice)
{
    wheel_link *chosen = due_list_.next;
    if (choice != 0) {
        std::uint64_t due = 0;
        for (const wheel_link *link = due_list_.next; link != &due_list_; link = link->next)
            ++due;
        for (std::uint64_t skip = choice % due; skip > 0; --skip)
            chosen = chosen->next;
    }
    return timer_of(*chosen);
}

std::uint64_t timer_wheel::next_event() const
{
    return is_empty(due_list_) ? std::min(next_near(), next_far()) : position_;
}

// The tick of the first near bucket in use after the position.
std::uint64_t timer_wheel::next_near() const
{
    std::uint64_t tick = position_ + 1;
    std::uint64_t bits = occupied_[tick % near_count / 64] >> tick % 64;
    for (unsigned int words = 0; words <= near_count / 64; ++words) {
        if (bits != 0)
            return tick + static_cast<unsigned int>(std::countr_zero(bits));
        tick = (tick | 63) + 1;
        bits = occupied_[tick % near_count / 64];
    }
    return never;
}

// The first tick of the first far bucket in use. All of a level come before those of the next.
std::uint64_t timer_wheel::next_far() const
{
    for (unsigned int level = 0; level < level_count; ++level) {
        const std::uint64_t digits = occupied_[near_count / 64 + level];
        if (digits == 0)
            continue;
        const unsigned int shift = near_bits + level * digit_bits;
        const std::uint64_t lower_digits =
            shift + digit_bits < 64 ? (std::uint64_t{1} << (shift + digit_bits)) - 1 : never;
        const auto digit = static_cast<std::uint64_t>(std::countr_zero(digits));
        return (position_ & ~lower_digits) | digit << shift;
    }
    return never;
}

void timer_wheel::file(wheel_timer &timer)
{
    if (timer.due <= position_) {
        append(due_list_, timer);
    } else if (timer.due - position_ < near_count) {
        file_in(timer.due % near_count, timer);
    } else {
        const std::uint64_t difference = (timer.due ^ position_) >> near_bits;
        const unsigned int level =
            (static_cast<unsigned int>(std::bit_width(difference)) - 1) / digit_bits;
        const unsigned int digit = (timer.due >> (near_bits + level * digit_bits)) % digit_count;
        file_in(near_count + level * digit_count + digit, timer);
    }
}

void timer_wheel::file_in(unsigned int bucket, wheel_timer &timer)
{
    append(buckets_[bucket], timer);
    occupied_[bucket / 64] |= std::uint64_t{1} << bucket % 64;
}

void timer_wheel::take_out(wheel_timer &timer)
{
    const wheel_link *head = timer.next == timer.prev ? timer.next : nullptr;
    unlink(timer);
    --count_;
    if (head == nullptr || head == &due_list_)
        return;
    // It was alone between its bucket's head and itself.
    const auto bucket = static_cast<std::size_t>(head - buckets_.data());
    occupied_[bucket / 64] &= ~(std::uint64_t{1} << bucket % 64);
}

// Moves the position to a tick that next_event gave, and what lies in its buckets down: near timers
// are due, far ones are filed anew.
void timer_wheel::move_down(std::uint64_t tick)
{
    wheel_link far;
    make_empty(far);
    if (next_far() == tick) {
        unsigned int word = near_count / 64;
        while (occupied_[word] == 0)
            ++word;
        const auto digit = static_cast<unsigned int>(std::countr_zero(occupied_[word]));
        occupied_[word] &= occupied_[word] - 1;
        take_all(far, buckets_[word * 64 + digit]);
    }
    position_ = tick;
    const unsigned int near = tick % near_count;
    take_all(due_list_, buckets_[near]);
    occupied_[near / 64] &= ~(std::uint64_t{1} << near % 64);
    while (!is_empty(far)) {
        wheel_timer &timer = timer_of(*far.next);
        unlink(timer);
        file(timer);
    }
}

} // namespace hosted
