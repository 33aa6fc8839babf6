// SPDX-License-Identifier: GPL-2.0
#include "kelmctl/options.h"

#include <algorithm>
#include <getopt.h>
#include <vector>

#include "kelmctl/command.h"

namespace kelmctl
{

namespace
{

constexpr option_entry table[] = {
    {'j', "json", nullptr, "JSON, for programs", &options::json},
    {'p', "pretty", nullptr, "indent the JSON", &options::pretty},
    {'s', "statistics", nullptr, "show every detail, a block for each", &options::statistics},
    {'t', "timestamp", nullptr, "date and time instead of ages and times of day",
     &options::timestamps},
    {'A', "all-vrfs", nullptr, "statistics of all network namespaces, the newest first",
     &options::all_vrfs},
    {'b', "batch", nullptr, "top: plain text, also on a terminal", &options::batch},
    {'n', "netns", "NETNS", "act in this network namespace: a name, or a path", nullptr},
    {'h', "help", nullptr, "this text", &options::help},
    {'V', "version", nullptr, "the version", &options::version},
};

// Of getopt's last complaint. A letter may be one of several in a word.
std::string rejected_option(std::span<char *const> words)
{
    const auto known = [](const option_entry &entry) { return entry.letter == optopt; };
    if (optopt != 0 && std::ranges::none_of(table, known))
        return std::string("-") + static_cast<char>(optopt);
    return words[static_cast<std::size_t>(optind) - 1];
}

} // namespace

constinit const std::span<const option_entry> option_table = table;

std::string option_entry::synopsis() const
{
    return std::string("-") + letter + ", --" + name + (value == nullptr ? "" : " ") +
           (value == nullptr ? "" : value);
}

options parse_options(std::span<char *const> words, std::span<char *const> &rest)
{
    std::string letters = ":"; // errors are reported to us
    std::vector<option> longs;
    for (const auto &entry : table) {
        letters += std::string(1, entry.letter) + (entry.value == nullptr ? "" : ":");
        longs.push_back({entry.name, entry.value == nullptr ? no_argument : required_argument,
                         nullptr, entry.letter});
    }
    longs.push_back({});

    options parsed;
    optind = 0; // glibc: start over
    for (;;) {
        const int letter = getopt_long(static_cast<int>(words.size()), words.data(),
                                       letters.c_str(), longs.data(), nullptr);
        if (letter == -1)
            break;
        if (letter == '?')
            throw usage_error("there is no option '" + rejected_option(words) + "'");
        if (letter == ':')
            throw usage_error("option '" +
                              std::string(words[static_cast<std::size_t>(optind) - 1]) +
                              "' requires a value");
        for (const auto &entry : table)
            if (entry.letter == letter && entry.flag != nullptr)
                parsed.*entry.flag = true;
        if (letter == 'n')
            parsed.netns = optarg;
    }
    rest = words.subspan(static_cast<std::size_t>(optind));
    return parsed;
}

} // namespace kelmctl
