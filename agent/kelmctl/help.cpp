// SPDX-License-Identifier: GPL-2.0
#include "kelmctl/help.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "kelmctl/options.h"

namespace kelmctl
{

namespace
{

using row = std::pair<std::string, std::string>;

// Two columns; the lines of a text of several stay in the second one.
std::string columns(const std::vector<row> &rows)
{
    std::size_t width = 0;
    for (const auto &[left, right] : rows)
        width = std::max(width, left.size());

    std::string text;
    for (const auto &[left, right] : rows) {
        text += "  " + left + std::string(width - left.size() + 2, ' ');
        for (const char c : right)
            text += c == '\n' ? "\n" + std::string(width + 4, ' ') : std::string(1, c);
        text += '\n';
    }
    return text;
}

std::string first_line(std::string_view text)
{
    return std::string(text.substr(0, text.find('\n')));
}

std::string name_and_value(const parameter &parameter)
{
    return std::string(parameter.name) + (parameter.value.empty() ? "" : " ") +
           std::string(parameter.value);
}

} // namespace

std::string overview_help()
{
    std::vector<row> objects_rows;
    for (const auto &object : objects)
        objects_rows.emplace_back(object.name, object.help);
    std::vector<row> options_rows;
    for (const auto &option : option_table)
        options_rows.emplace_back(option.synopsis(), option.help);

    return "usage: kelmctl [OPTIONS] OBJECT {COMMAND | help} [ARGUMENTS]\n\n"
           "Shows and controls kelm, which sends BFD packets and detects failures for a BFD "
           "agent.\n\n"
           "Objects (may be abbreviated):\n" +
           columns(objects_rows) + "\nOptions:\n" + columns(options_rows) +
           "\n'kelmctl OBJECT help' lists the commands of an object,\n"
           "'kelmctl OBJECT COMMAND help' the arguments of a command.\n";
}

std::string object_help(const object &object)
{
    std::vector<row> rows;
    for (const auto &command : object.commands)
        rows.emplace_back(std::string(command.name) + (command.operands.empty() ? "" : " ") +
                              std::string(command.operands) +
                              (command.parameters.empty() ? "" : " ..."),
                          first_line(command.help));
    return "usage: kelmctl [OPTIONS] " + std::string(object.name) + " COMMAND [ARGUMENTS]\n\n" +
           std::string(object.name) + ": " + std::string(object.help) + "\n\nCommands:\n" +
           columns(rows) + "\n'" + std::string(object.commands.front().name) +
           "' is the default.\n";
}

std::string synopsis(const object &object, const command &command)
{
    std::string text =
        "kelmctl [OPTIONS] " + std::string(object.name) + " " + std::string(command.name);
    if (!command.operands.empty())
        text += " " + std::string(command.operands);
    if (!command.parameters.empty())
        text += " [PARAMETER ...]";
    return text;
}

std::string command_help(const object &object, const command &command)
{
    std::vector<row> rows;
    for (const auto &parameter : command.parameters)
        rows.emplace_back(name_and_value(parameter), parameter.help);
    std::string text =
        "usage: " + synopsis(object, command) + "\n\n" + std::string(command.help) + "\n";
    if (!rows.empty())
        text += "\nParameters, in any order:\n" + columns(rows);
    return text;
}

} // namespace kelmctl
