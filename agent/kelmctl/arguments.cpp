// SPDX-License-Identifier: GPL-2.0
#include "kelmctl/arguments.h"

#include <algorithm>
#include <iterator>
#include <sstream>

namespace kelmctl
{

namespace
{

const parameter *find_parameter(const command &command, std::string_view name)
{
    const auto found = std::ranges::find(command.parameters, name, &parameter::name);
    return found == command.parameters.end() ? nullptr : &*found;
}

std::vector<std::string> split(std::string_view text)
{
    std::istringstream stream{std::string(text)};
    return {std::istream_iterator<std::string>(stream), {}};
}

template<typename Parse>
auto convert(const std::optional<std::string> &text, Parse parse)
    -> std::optional<decltype(parse(*text))>
{
    if (!text)
        return std::nullopt;
    return parse(*text);
}

} // namespace

// A word that names a parameter is that parameter; others fill the operands in their order.
arguments::arguments(const command &command, std::span<char *const> words)
{
    const std::vector<std::string> expected = split(command.operands);
    const bool repeats = command.operands.ends_with("...") || command.operands.ends_with("...]");
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string word = words[i];
        const parameter *known = find_parameter(command, word);
        if (known == nullptr) {
            if (operands_.size() == expected.size() && !repeats)
                throw usage_error("'" + word + "': unexpected argument");
            operands_.push_back(word);
            continue;
        }
        std::string value;
        if (!known->value.empty()) {
            if (++i == words.size())
                throw usage_error("'" + word + "' requires a value: " + std::string(known->value));
            value = words[i];
        }
        if (!values_.emplace(word, value).second)
            throw usage_error("'" + word + "' is given twice");
    }
    if (operands_.size() < expected.size() && !expected[operands_.size()].starts_with('['))
        throw usage_error(expected[operands_.size()] + " is missing");
}

std::optional<std::string> arguments::operand(std::size_t index) const
{
    return index < operands_.size() ? std::optional(operands_[index]) : std::nullopt;
}

std::optional<std::uint32_t> arguments::discriminator(std::size_t index) const
{
    return convert(operand(index), parse_discriminator);
}

std::optional<std::string> arguments::text(std::string_view name) const
{
    const auto found = values_.find(name);
    return found == values_.end() ? std::nullopt : std::optional(found->second);
}

std::optional<std::uint32_t> arguments::number(std::string_view name, std::uint32_t least,
                                               std::uint32_t most) const
{
    return convert(text(name), [=](const auto &t) { return parse_number(name, t, least, most); });
}

std::optional<kelm_microsecs> arguments::duration(std::string_view name) const
{
    return convert(text(name), [=](const auto &t) { return parse_duration(name, t); });
}

std::optional<std::uint32_t> arguments::choice(std::string_view name, kelm::name_table names) const
{
    return convert(text(name), [=](const auto &t) { return parse_name(name, names, t); });
}

std::optional<bool> arguments::on_off(std::string_view name) const
{
    return convert(text(name), [=](const auto &t) { return parse_switch(name, t); });
}

std::optional<kelm::ip_address> arguments::address(std::string_view name) const
{
    return convert(text(name), [=](const auto &t) { return parse_address(name, t); });
}

std::optional<kelm::mac_address> arguments::mac(std::string_view name) const
{
    return convert(text(name), [=](const auto &t) { return parse_mac(name, t); });
}

} // namespace kelmctl
