// SPDX-License-Identifier: GPL-2.0
#include "kelmctl/record.h"

#include <cstdio>
#include <ctime>
#include <utility>

namespace kelmctl
{

namespace
{

constexpr std::uint64_t us_per_second = 1'000'000;

std::uint64_t to_us(kelm_time time)
{
    return time.sec * us_per_second + time.nsec / 1000;
}

} // namespace

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

record &record::number(std::string key, std::string label, std::uint64_t value)
{
    return add({std::move(key), std::move(label), value, std::to_string(value), true, true});
}

record &record::duration(std::string key, std::string label, kelm_microsecs value)
{
    return add({std::move(key), std::move(label), std::uint64_t{value}, format_duration(value),
                true, true});
}

record &record::age(std::string key, std::string label, kelm_time value, kelm_time now)
{
    const bool never = value.sec == 0 && value.nsec == 0;
    const std::uint64_t then_us = to_us(value);
    const std::uint64_t now_us = to_us(now);
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

record &record::rate(std::string key, std::string label, double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.*f", value < 1000 ? 1 : 0, value);
    return add({std::move(key), std::move(label), value, text, true, true});
}

record &record::stamp(std::string key, kelm_time value)
{
    return add({std::move(key), {}, value, format_time(value, false), true, false});
}

record &record::tell_times()
{
    for (auto &cell : cells_)
        if (const auto *time = std::get_if<kelm_time>(&cell.value); time && time->sec != 0)
            cell.text = format_time(*time, true);
    return *this;
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

std::string format_time(kelm_time time, bool with_date)
{
    const time_t seconds = time.sec;
    tm local = {};
    localtime_r(&seconds, &local);
    char text[48];
    const std::size_t length =
        std::strftime(text, sizeof text, with_date ? "%Y-%m-%dT%H:%M:%S" : "%H:%M:%S", &local);
    std::snprintf(text + length, sizeof text - length, ".%06u", time.nsec / 1000);
    return text;
}

} // namespace kelmctl
