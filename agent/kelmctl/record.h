// SPDX-License-Identifier: GPL-2.0
//
// What is to be shown, once for all forms of output: a record is a list of cells, each with its
// JSON key, its JSON value and its text for people.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "kelm.h"
#include "libkelm/duration.h"

namespace kelmctl
{

using json_value = std::variant<bool, std::uint64_t, double, std::string, kelm_time>;

struct cell {
    std::string key;   // "bfd.state" lies in an object "bfd"; empty: not in JSON
    std::string label; // for people
    json_value value;
    std::string text; // for people; empty: not for them; without a label: in lines alone
    bool brief;       // in tables and event lines; others only in full blocks
    bool is_counter;  // aligned to the right
};

// The first cell is the record's name: "session" with the text "5".
class record
{
  public:
    const std::vector<cell> &cells() const { return cells_; }

    // Cells that follow are only shown in full blocks, or in lines and tables too.
    record &full();
    record &brief();

    record &number(std::string key, std::string label, std::uint64_t value);
    record &duration(std::string key, std::string label, kelm_microsecs value);
    // Times per second.
    record &rate(std::string key, std::string label, double value);
    // "12ms ago" for people, "never" for 0.
    record &age(std::string key, std::string label, kelm_time value, kelm_time now);
    record &text(std::string key, std::string label, std::string value);
    record &flag(std::string key, std::string label, bool value, const char *yes = "yes",
                 const char *no = "no");
    // The time of day, in front of an event.
    record &stamp(std::string key, kelm_time value);
    // For JSON alone.
    record &json(std::string key, json_value value);

    record &append(const record &other);

    // Points in time are shown to people with their date, instead of as ages and times of day.
    record &tell_times();

  private:
    record &add(cell);

    std::vector<cell> cells_;
    bool brief_ = true;
};

using kelm::format_duration;

// Local time: "14:03:59.000001", or with the date in front, "2026-11-23T14:03:59.000001".
std::string format_time(kelm_time, bool with_date);

} // namespace kelmctl
