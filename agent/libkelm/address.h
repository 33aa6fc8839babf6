// SPDX-License-Identifier: GPL-2.0
//
// Addresses as people type them and as packets hold them.
#pragma once

#include <array>
#include <optional>
#include <string>

#include "libkelm/bytes.h"

namespace kelm
{

struct ip_address {
    int family = 0; // AF_INET, AF_INET6, or 0: no address
    std::array<std::uint8_t, 16> octets{};

    // IPv4 or IPv6, in its usual text form, without a scope.
    static std::optional<ip_address> parse(const std::string &text);
    // 4 octets for AF_INET, 16 for AF_INET6.
    static ip_address from(int family, const std::uint8_t *octets);

    byte_view view() const;   // the octets of the address's family; none without one
    std::string text() const; // "-" without an address
    bool operator==(const ip_address &) const = default;
};

struct mac_address {
    std::array<std::uint8_t, 6> octets{};

    // "02:00:00:aa:bb:cc"; a leading zero of an octet may be missing.
    static std::optional<mac_address> parse(const std::string &text);
    std::string text() const;
    bool operator==(const mac_address &) const = default;
};

} // namespace kelm
