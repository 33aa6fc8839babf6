// SPDX-License-Identifier: GPL-2.0
#include "libkelm/duration.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>

namespace kelm
{

namespace
{

constexpr std::uint64_t us_per_second = 1'000'000;

struct unit {
    std::string_view name;
    double microseconds;
};

constexpr unit units[] = {{"us", 1}, {"ms", 1e3}, {"s", 1e6}, {"min", 60e6}};

// Four significant digits, no trailing zeros.
std::string format_scaled(std::uint64_t microseconds, double unit, const char *name)
{
    char buffer[32];
    const double value = static_cast<double>(microseconds) / unit;
    std::snprintf(buffer, sizeof buffer, "%.4g%s", value, name);
    return buffer;
}

} // namespace

std::optional<kelm_microsecs> parse_duration(const std::string &text)
{
    const char *end = text.data() + text.size();
    double number = 0;
    const auto [stop, problem] =
        std::from_chars(text.data(), end, number, std::chars_format::fixed);
    const std::string_view suffix(stop, static_cast<std::size_t>(end - stop));
    if (problem != std::errc() || number < 0)
        return std::nullopt;
    if (number == 0 && suffix.empty())
        return 0;
    for (const auto &unit : units) {
        const double product = std::round(number * unit.microseconds);
        if (suffix == unit.name && product <= std::numeric_limits<kelm_microsecs>::max())
            return static_cast<kelm_microsecs>(product);
    }
    return std::nullopt;
}

std::string format_duration(std::uint64_t microseconds)
{
    const std::uint64_t seconds = microseconds / us_per_second;
    const auto two = [](std::uint64_t large, const char *large_name, std::uint64_t small,
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

} // namespace kelm
