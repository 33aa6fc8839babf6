// SPDX-License-Identifier: GPL-2.0
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace kelmctl
{

// They may stand anywhere on the command line.
struct options {
    bool json = false;
    bool pretty = false;
    bool statistics = false;
    bool timestamps = false;
    bool all_vrfs = false;
    bool batch = false;
    bool help = false;
    bool version = false;
    std::string netns;
};

struct option_entry {
    char letter;
    const char *name;
    const char *value; // what help calls it, or null
    const char *help;
    bool options::*flag; // set by an option without a value

    std::string synopsis() const;
};

extern const std::span<const option_entry> option_table;

// Reads the options, moves them in front of the other words and sets `rest` to these. Throws
// usage_error.
options parse_options(std::span<char *const> words, std::span<char *const> &rest);

} // namespace kelmctl
