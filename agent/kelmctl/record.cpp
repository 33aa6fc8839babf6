// SPDX-License-Identifier: GPL-2.0
#include "kelmctl/record.h"

#include <cstdio>
#include <utility>

namespace kelmctl
{

namespace
{

constexpr uint64_t us_per_second = 1'000'000;

uint64_t to_us(kelm_time time)
{
    return time.sec * us_per_second + time.nsec / 1000;
}

// Four significant digits, no trailing zeros.
std::string format_scaled(uint64_t microseconds, double unit, const char *name)
{
    char buffer[32];
    const double value = static_cast<double>(microseconds) / unit;
    std::snprintf(buffer, sizeof buffer, "%.4g%s", value, name);
    return buffer;
}

} // namespace

std::string format_duration(uint64_t microseconds)
{
    const uint64_t seconds = microseconds / us_per_second;
    const auto two = [](uint64_t large, const char *large_name, uint64_t small,
                        const char *small_name) {
        return std::to_string(large) + large_name +
               (small == 0 ? "" : " " + std::to_string(small) + small_name);
    };
    if (microseconds == 0)
        return "0";
    if (microseconds < 1000)
        return std::to_string(microseconds) + "us";
    if (microseconds < 999'950)
        return format_scaled(microseconds, 1e3, "ms");
    if (seconds < 60)
        return format_scaled(microseconds, 1e6, "s");
    if (seconds < 3600)
        return two(seconds / 60, "min", seconds % 60, "s");
    if (seconds < 86400)
        return two(seconds / 3600, "h", seconds / 60 % 60, "min");
    return two(seconds / 86400, "d", seconds / 3600 % 24, "h");
}

record &record::full()
{
    brief_ = false;
    return *this;
}

record &record::brief()
{
    brief_ = true;
    return *this;
}

record &record::add(cell next)
{
    next.brief = brief_;
    cells_.push_back(std::move(next));
    return *this;
}

record &record::number(std::string key, std::string label, uint64_t value)
{
    return add({std::move(key), std::move(label), value, std::to_string(value), true, true});
}

record &record::duration(std::string key, std::string label, kelm_microsecs value)
{
    return add(
        {std::move(key), std::move(label), uint64_t{value}, format_duration(value), true, true});
}

record &record::age(std::string key, std::string label, kelm_time value, kelm_time now)
{
    const bool never = value.sec == 0 && value.nsec == 0;
    const uint64_t then_us = to_us(value);
    const uint64_t now_us = to_us(now);
    const std::string text =
        never ? "never" : format_duration(now_us > then_us ? now_us - then_us : 0) + " ago";
    return add({std::move(key), std::move(label), value, text, true, true});
}

record &record::text(std::string key, std::string label, std::string value)
{
    const std::string text = value;
    return add({std::move(key), std::move(label), std::move(value), text, true, false});
}

record &record::flag(std::string key, std::string label, bool value, const char *yes,
                     const char *no)
{
    return add({std::move(key), std::move(label), value, value ? yes : no, true, false});
}

record &record::stamp(std::string key, kelm_time value, std::string text)
{
    return add({std::move(key), {}, value, std::move(text), true, false});
}

record &record::append(const record &other)
{
    cells_.insert(cells_.end(), other.cells_.begin(), other.cells_.end());
    return *this;
}

record &record::json(std::string key, json_value value)
{
    return add({std::move(key), {}, std::move(value), {}, false, false});
}

} // namespace kelmctl
