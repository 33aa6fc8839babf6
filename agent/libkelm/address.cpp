// SPDX-License-Identifier: GPL-2.0
#include "libkelm/address.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <cstdio>

namespace kelm
{

std::optional<ip_address> ip_address::parse(const std::string &text)
{
    ip_address address;
    for (const int family : {AF_INET, AF_INET6}) {
        if (inet_pton(family, text.c_str(), address.octets.data()) == 1) {
            address.family = family;
            return address;
        }
    }
    return std::nullopt;
}

ip_address ip_address::from(int family, const std::uint8_t *octets)
{
    ip_address address;
    address.family = family;
    std::copy_n(octets, family == AF_INET ? 4 : 16, address.octets.begin());
    return address;
}

byte_view ip_address::view() const
{
    return byte_view(octets).first(family == AF_INET ? 4 : family == AF_INET6 ? 16 : 0);
}

std::string ip_address::text() const
{
    char buffer[INET6_ADDRSTRLEN] = "-";
    if (family != 0)
        inet_ntop(family, octets.data(), buffer, sizeof buffer);
    return buffer;
}

std::optional<mac_address> mac_address::parse(const std::string &text)
{
    mac_address address;
    const char *at = text.data();
    const char *const end = at + text.size();
    for (std::size_t i = 0; i < address.octets.size(); ++i) {
        if (i > 0 && (at == end || *at++ != ':'))
            return std::nullopt;
        const auto [stop, problem] = std::from_chars(at, end, address.octets[i], 16);
        if (problem != std::errc())
            return std::nullopt;
        at = stop;
    }
    return at == end ? std::optional(address) : std::nullopt;
}

std::string mac_address::text() const
{
    char buffer[18];
    std::snprintf(buffer, sizeof buffer, "%02x:%02x:%02x:%02x:%02x:%02x", octets[0], octets[1],
                  octets[2], octets[3], octets[4], octets[5]);
    return buffer;
}

} // namespace kelm
