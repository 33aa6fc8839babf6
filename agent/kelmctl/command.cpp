// SPDX-License-Identifier: GPL-2.0
#include "kelmctl/command.h"

#include <algorithm>
#include <vector>

namespace kelmctl
{

namespace
{

template<typename T>
const T &find(std::span<const T> table, std::string_view name, const std::string &what)
{
    std::vector<const T *> matches;
    for (const T &entry : table) {
        if (entry.name == name)
            return entry;
        if (entry.name.starts_with(name))
            matches.push_back(&entry);
    }
    if (matches.size() == 1)
        return *matches.front();
    if (matches.empty())
        throw usage_error("there is no " + what + " '" + std::string(name) + "'");
    std::string candidates;
    for (const T *match : matches)
        candidates += (candidates.empty() ? "" : ", ") + std::string(match->name);
    throw usage_error(what + " '" + std::string(name) + "' may be any of: " + candidates);
}

} // namespace

const object &find_object(std::string_view name)
{
    return find(objects, name, "object");
}

const command &take_command(const object &object, std::span<char *const> &words)
{
    const command &first = object.commands.front();
    if (words.empty())
        return first;
    const std::string_view word = words.front();
    const auto named = [&](const auto &entry) { return entry.name == word; };
    const bool is_number = word.find_first_not_of("0123456789") != 0;
    if (std::ranges::none_of(object.commands, named) &&
        (is_number || std::ranges::any_of(first.parameters, named)))
        return first;
    words = words.subspan(1);
    return find(object.commands, word, std::string(object.name) + " command");
}

} // namespace kelmctl
