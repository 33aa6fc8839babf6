// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/config_section.h"

#include <algorithm>
#include <sys/socket.h>

#include "libkelm/duration.h"

namespace kelm_agent
{

namespace
{

std::string quoted(std::string_view key)
{
    return "'" + std::string(key) + "'";
}

bool is_unicast(const kelm::ip_address &address)
{
    const auto octets = address.view();
    const auto all_are = [&](std::uint8_t value) {
        return std::ranges::all_of(octets, [=](auto octet) { return octet == value; });
    };
    const bool is_multicast =
        address.family == AF_INET ? (octets[0] & 0xf0) == 0xe0 : octets[0] == 0xff;
    return !is_multicast && !all_are(0) && !all_are(0xff);
}

bool is_ipv4_in_ipv6(const kelm::ip_address &address)
{
    constexpr std::uint8_t prefix[] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    return address.family == AF_INET6 &&
           std::ranges::equal(address.view().first(sizeof prefix), prefix);
}

} // namespace

void config_section::fail(const toml::node &at, const std::string &text) const
{
    const toml::source_region &where = at.source();
    throw config_error(where.path ? *where.path : file_, where.begin.line, text);
}

const toml::node *config_section::find_own(std::string_view key)
{
    known_.emplace(key);
    return table_.get(key);
}

const toml::node *config_section::find(std::string_view key)
{
    const toml::node *found = find_own(key);
    for (auto other = others_.begin(); found == nullptr && other != others_.end(); ++other)
        found = (*other)->get(key);
    return found;
}

const toml::node &config_section::require(std::string_view key)
{
    const toml::node *found = find(key);
    if (found == nullptr)
        fail(quoted(key) + " is missing");
    return *found;
}

std::string config_section::as_text(const toml::node &node, std::string_view key) const
{
    const auto *value = node.as_string();
    if (value == nullptr)
        fail(node, quoted(key) + " must be a string in quotes");
    return value->get();
}

std::int64_t config_section::as_number(const toml::node &node, std::string_view key,
                                       std::int64_t least, std::int64_t most) const
{
    const auto *value = node.as_integer();
    if (value == nullptr || value->get() < least || value->get() > most)
        fail(node, quoted(key) + " must be a number from " + std::to_string(least) + " to " +
                       std::to_string(most));
    return value->get();
}

const toml::table &config_section::as_table(const toml::node &node, std::string_view key) const
{
    const auto *value = node.as_table();
    if (value == nullptr)
        fail(node, quoted(key) + " must be a table");
    return *value;
}

const toml::array &config_section::as_array(const toml::node &node, std::string_view key) const
{
    const auto *value = node.as_array();
    if (value == nullptr)
        fail(node, quoted(key) + " must be a list");
    return *value;
}

std::string config_section::text(std::string_view key, std::string otherwise)
{
    const toml::node *found = find(key);
    return found == nullptr ? std::move(otherwise) : as_text(*found, key);
}

bool config_section::flag(std::string_view key, bool otherwise)
{
    const toml::node *found = find(key);
    if (found == nullptr)
        return otherwise;
    const auto *value = found->as_boolean();
    if (value == nullptr)
        fail(*found, quoted(key) + " must be true or false");
    return value->get();
}

std::int64_t config_section::number(std::string_view key, std::int64_t least, std::int64_t most,
                                    std::int64_t otherwise)
{
    const toml::node *found = find(key);
    return found == nullptr ? otherwise : as_number(*found, key, least, most);
}

// kelm's clock ticks once a millisecond.
kelm_microsecs config_section::duration(std::string_view key, kelm_microsecs otherwise)
{
    constexpr kelm_microsecs least = 1000;
    const toml::node *found = find(key);
    if (found == nullptr)
        return otherwise;
    const auto *value = found->as_string();
    const auto duration = value == nullptr ? std::nullopt : kelm::parse_duration(value->get());
    if (!duration || *duration < least)
        fail(*found, quoted(key) + " must be a time with its unit, as in \"300ms\" or \"1.5s\", "
                                   "from 1ms to 4294.967295s");
    return *duration;
}

std::optional<kelm::ip_address> config_section::address(std::string_view key)
{
    const toml::node *found = find(key);
    if (found == nullptr)
        return std::nullopt;
    const auto address = kelm::ip_address::parse(as_text(*found, key));
    if (!address)
        fail(*found, quoted(key) + " must be an IPv4 or IPv6 address, as in \"192.0.2.1\"");
    if (!is_unicast(*address))
        fail(*found, quoted(key) + " must be a unicast address");
    if (is_ipv4_in_ipv6(*address))
        fail(*found, quoted(key) + " must be written as an IPv4 address");
    return address;
}

void config_section::expect_no_more() const
{
    for (const auto &[key, node] : table_) {
        if (known_.contains(key.str()))
            continue;
        std::string keys;
        for (const auto &known : known_)
            keys += (keys.empty() ? "" : ", ") + known;
        const toml::source_region &where = key.source();
        throw config_error(where.path ? *where.path : file_, where.begin.line,
                           "unknown key " + quoted(key.str()) + "; known here: " + keys);
    }
}

} // namespace kelm_agent
