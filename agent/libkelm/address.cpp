// SPDX-License-Identifier: GPL-2.0
#include "libkelm/address.h"

#include <arpa/inet.h>

#include <algorithm>
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

ip_address ip_address::from(int family, const uint8_t *octets)
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
    auto &o = address.octets;
    int end = 0;
    if (std::sscanf(text.c_str(), "%2hhx:%2hhx:%2hhx:%2hhx:%2hhx:%2hhx%n", &o[0], &o[1], &o[2],
                    &o[3], &o[4], &o[5], &end) != 6 ||
        static_cast<size_t>(end) != text.size())
        return std::nullopt;
    return address;
}

std::string mac_address::text() const
{
    char buffer[18];
    std::snprintf(buffer, sizeof buffer, "%02x:%02x:%02x:%02x:%02x:%02x", octets[0], octets[1],
                  octets[2], octets[3], octets[4], octets[5]);
    return buffer;
}

} // namespace kelm
