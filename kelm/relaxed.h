// SPDX-License-Identifier: GPL-2.0
//
// A plain flag or number that several contexts read and write without a lock, where nothing
// depends on the order in which they see it.
#pragma once

#include <atomic>

template<class T>
class relaxed
{
  public:
    constexpr relaxed() = default;
    explicit constexpr relaxed(T value) : value_(value) {}

    operator T() const { return value_.load(std::memory_order_relaxed); }
    T operator=(T value)
    {
        value_.store(value, std::memory_order_relaxed);
        return value;
    }
    // Stores value and returns what was there before.
    T exchange(T value) { return value_.exchange(value, std::memory_order_relaxed); }

  private:
    std::atomic<T> value_{};
};
