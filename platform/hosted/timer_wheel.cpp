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
    if (!is_empty(due_list_))
        return position_;
    for (unsigned int level = 0; level < level_count; ++level) {
        if (occupied_[level] == 0)
            continue;
        const unsigned int shift = level * digit_bits;
        const std::uint64_t lower_digits =
            shift + digit_bits < 64 ? (std::uint64_t{1} << (shift + digit_bits)) - 1 : never;
        const auto digit = static_cast<std::uint64_t>(std::countr_zero(occupied_[level]));
        return (position_ & ~lower_digits) | digit << shift;
    }
    return never;
}

void timer_wheel::file(wheel_timer &timer)
{
    if (timer.due <= position_) {
        append(due_list_, timer);
        return;
    }
    const auto highest_bit = static_cast<unsigned int>(std::bit_width(timer.due ^ position_)) - 1;
    const unsigned int level = highest_bit / digit_bits;
    const unsigned int digit = (timer.due >> (level * digit_bits)) % bucket_count;
    append(buckets_[level * bucket_count + digit], timer);
    occupied_[level] |= std::uint64_t{1} << digit;
}

void timer_wheel::take_out(wheel_timer &timer)
{
    const wheel_link *head = timer.next == timer.prev ? timer.next : nullptr;
    unlink(timer);
    --count_;
    if (head == nullptr || head == &due_list_)
        return;
    // It was alone between its bucket's head and itself.
    const auto index = static_cast<std::size_t>(head - buckets_.data());
    occupied_[index / bucket_count] &= ~(std::uint64_t{1} << (index % bucket_count));
}

// Moves the position to a tick that next_event gave, and that event's bucket down with it. All
// other timers stay at their level: their digit there is still ahead.
void timer_wheel::move_down(std::uint64_t tick)
{
    unsigned int level = 0;
    while (occupied_[level] == 0)
        ++level;
    const auto digit = static_cast<unsigned int>(std::countr_zero(occupied_[level]));
    wheel_link &head = buckets_[level * bucket_count + digit];
    occupied_[level] &= occupied_[level] - 1;
    position_ = tick;
    while (!is_empty(head)) {
        wheel_timer &timer = timer_of(*head.next);
        unlink(timer);
        file(timer);
    }
}

} // namespace hosted
