// SPDX-License-Identifier: GPL-2.0
//
// What the live screen shows, made from what kelm has told: nothing here touches a terminal.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "kelmctl/record.h"
#include "kelmctl/states.h"
#include "kelmctl/statistics.h"
#include "kelmctl/table.h"

namespace kelmctl
{

// Everything at one moment.
struct top_sample {
    kelm_time taken = {};
    statistics stats;
    session_states states;
    std::map<std::uint32_t, std::string> links; // names by index, of the interfaces in `states`
};

struct top_form {
    std::size_t columns = any_width;
    std::size_t rows = any_width;
    bool timestamps = false; // date and time instead of ages
};

struct top_line {
    enum class style { plain, heading, alarm };

    std::string text;
    style look = style::plain;
};

// A record for each discriminator with what its session and its packet do, those that have failed
// in front. Rates are told since `before`, where there is one.
std::vector<record> top_records(const top_sample &now, const top_sample *before);

// The same for people: a summary and a table, as much of both as there is room for.
std::vector<top_line> top_lines(const top_sample &now, const top_sample *before, const top_form &);

} // namespace kelmctl
