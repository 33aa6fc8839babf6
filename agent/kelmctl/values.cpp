// SPDX-License-Identifier: GPL-2.0
#include "kelmctl/values.h"

#include <charconv>
#include <cstdio>
#include <limits>

#include "kelmctl/command.h"
#include "libkelm/duration.h"
#include "libkelm/key_file.h"

namespace kelmctl
{

namespace
{

[[noreturn]] void reject(std::string_view what, const std::string &text, const std::string &wanted)
{
    throw usage_error(std::string(what) + ": '" + text + "' is not " + wanted);
}

} // namespace

std::uint32_t parse_number(std::string_view what, const std::string &text, std::uint32_t least,
                           std::uint32_t most)
{
    const bool hexadecimal = text.starts_with("0x");
    const char *end = text.data() + text.size();
    std::uint32_t number = 0;
    const auto [stop, problem] =
        std::from_chars(text.data() + (hexadecimal ? 2 : 0), end, number, hexadecimal ? 16 : 10);
    if (problem != std::errc() || stop != end || number < least || number > most)
        reject(what, text,
               "a number from " + std::to_string(least) + " to " + std::to_string(most));
    return number;
}

kelm_microsecs parse_duration(std::string_view what, const std::string &text)
{
    const auto duration = kelm::parse_duration(text);
    if (!duration)
        reject(what, text, "a time below 4294s with its unit, as in 300ms, 1.5s or 750us");
    return *duration;
}

std::uint32_t parse_name(std::string_view what, kelm::name_table names, const std::string &text)
{
    const auto number = kelm::number_of(names, text);
    if (!number)
        reject(what, text, "one of: " + kelm::all_names(names));
    return *number;
}

bool parse_switch(std::string_view what, const std::string &text)
{
    if (text != "on" && text != "off")
        reject(what, text, "on or off");
    return text == "on";
}

kelm::ip_address parse_address(std::string_view what, const std::string &text)
{
    const auto address = kelm::ip_address::parse(text);
    if (!address)
        reject(what, text, "an IPv4 or IPv6 address");
    return *address;
}

kelm::mac_address parse_mac(std::string_view what, const std::string &text)
{
    const auto address = kelm::mac_address::parse(text);
    if (!address)
        reject(what, text, "an Ethernet address, as in 02:00:00:12:34:56");
    return *address;
}

std::uint32_t parse_discriminator(const std::string &text)
{
    return parse_number("discriminator", text, 1, std::numeric_limits<std::uint32_t>::max());
}

std::vector<std::uint32_t> parse_discriminators(const std::string &text)
{
    std::vector<std::uint32_t> list;
    for (std::size_t start = 0; start <= text.size();) {
        const std::size_t comma = std::min(text.find(',', start), text.size());
        list.push_back(parse_discriminator(text.substr(start, comma - start)));
        start = comma + 1;
    }
    return list;
}

kelm::bytes read_key(const std::string &path)
{
    bool is_exposed = false;
    kelm::bytes key = kelm::read_key_file(path, is_exposed);
    if (is_exposed)
        std::fprintf(stderr,
                     "kelmctl: warning: key file %s is accessible to other users (chmod 600)\n",
                     path.c_str());
    return key;
}

} // namespace kelmctl
