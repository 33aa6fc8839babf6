// SPDX-License-Identifier: GPL-2.0
#include "kelmctl/complete.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <net/if.h>

#include "kelmctl/agent_request.h"
#include "kelmctl/command.h"
#include "kelmctl/options.h"
#include "libkelm/error.h"
#include "libkelm/netns.h"

namespace kelmctl
{

namespace
{

using words = std::vector<std::string>;

words network_namespaces()
{
    words names;
    std::error_code problem;
    for (const auto &entry : std::filesystem::directory_iterator("/run/netns", problem))
        names.push_back(entry.path().filename());
    return names;
}

words interfaces(const std::string &netns)
{
    words names;
    try {
        kelm::in_netns(netns, [&] {
            struct if_nameindex *const all = if_nameindex();
            for (auto *at = all; at != nullptr && at->if_index != 0; ++at)
                names.emplace_back(at->if_name);
            if_freenameindex(all);
        });
    } catch (const kelm::error &) {
        // The command itself will tell.
    }
    return names;
}

// Those of the agent whose socket is given, or of the usual one.
words agent_sessions(std::span<char *const> given)
{
    std::string socket_path = default_agent_socket;
    for (std::size_t i = 0; i + 1 < given.size(); ++i)
        if (std::string_view(given[i]) == "socket")
            socket_path = given[i + 1];
    words names;
    try {
        const agent_json reply = ask_agent(socket_path, {{"command", "show"}});
        for (const auto &session : reply.at("sessions"))
            names.push_back(session.at("session"));
    } catch (const std::exception &) {
        // The command itself will tell.
    }
    return names;
}

// The values of a table's entry: named ones, or "on|off", or the network's.
words values(const parameter &parameter, const std::string &netns)
{
    words found;
    if (parameter.choices != nullptr)
        for (const auto &choice : *parameter.choices)
            found.emplace_back(choice.name);
    else if (parameter.value == "IFNAME")
        found = interfaces(netns);
    else if (parameter.value.find('|') != std::string_view::npos)
        for (std::size_t start = 0; start <= parameter.value.size();) {
            const std::size_t end =
                std::min(parameter.value.find('|', start), parameter.value.size());
            found.emplace_back(parameter.value.substr(start, end - start));
            start = end + 1;
        }
    return found;
}

template<typename T>
words names_of(std::span<const T> table)
{
    words names;
    for (const T &entry : table)
        names.emplace_back(entry.name);
    return names;
}

words option_names()
{
    words names;
    for (const auto &option : option_table) {
        names.push_back(std::string("-") + option.letter);
        names.push_back(std::string("--") + option.name);
    }
    return names;
}

// Parameters that are not given yet.
words parameters(const command &command, std::span<char *const> given)
{
    words names;
    for (const auto &parameter : command.parameters)
        if (std::ranges::find(given, parameter.name) == given.end())
            names.emplace_back(parameter.name);
    return names;
}

// What `given`, the words after the object, may go on with.
words after_object(const object &object, std::span<char *const> given, const std::string &netns)
{
    const bool at_command = given.empty();
    const command &command = take_command(object, given);
    for (const auto &parameter : command.parameters)
        if (!given.empty() && given.back() == parameter.name && !parameter.value.empty())
            return values(parameter, netns);
    words found = parameters(command, given);
    if (!at_command && command.operands.find("SESSION") != std::string_view::npos)
        std::ranges::move(agent_sessions(given), std::back_inserter(found));
    if (at_command)
        std::ranges::move(names_of(object.commands), std::back_inserter(found));
    found.emplace_back("help");
    return found;
}

words after(std::span<char *const> given, const std::string &netns)
{
    if (!given.empty() && std::string_view(given.front()) == "help")
        return after(given.subspan(1), netns);
    if (!given.empty())
        return after_object(find_object(given.front()), given.subspan(1), netns);
    words found = names_of(objects);
    found.emplace_back("help");
    return found;
}

bool wants_value(std::string_view option)
{
    const auto is_it = [=](const option_entry &entry) {
        const bool is_short = !option.starts_with("--") && option.ends_with(entry.letter);
        return entry.value != nullptr && (is_short || option == std::string("--") + entry.name);
    };
    return option.starts_with('-') && std::ranges::any_of(option_table, is_it);
}

words candidates(std::span<char *const> given, std::string_view last)
{
    std::vector<char *> plain; // without options
    std::string netns;
    for (std::size_t i = 0; i < given.size(); ++i) {
        if (given[i][0] != '-')
            plain.push_back(given[i]);
        else if (wants_value(given[i]) && ++i < given.size())
            netns = given[i];
    }
    if (!given.empty() && wants_value(given.back()))
        return network_namespaces();
    return last.starts_with('-') ? option_names() : after(plain, netns);
}

} // namespace

std::vector<std::string> complete(std::span<char *const> line)
{
    if (line.empty())
        return {};
    const std::string_view last = line.back();
    words found;
    try {
        found = candidates(line.first(line.size() - 1), last);
    } catch (const usage_error &) {
        return {};
    }
    std::erase_if(found, [=](const std::string &word) { return !word.starts_with(last); });
    return found;
}

} // namespace kelmctl
