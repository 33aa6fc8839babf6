// SPDX-License-Identifier: GPL-2.0
//
// The addresses in an IP header.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

inline constexpr std::size_t ipv4_addr_len = 4;
inline constexpr std::size_t ipv6_addr_len = 16;

// Pointers into the header, which is whole; anything that is not version 4 is taken for version 6.
struct ip_addresses {
    bool v4;
    const std::uint8_t *source;
    const std::uint8_t *destination;

    explicit ip_addresses(const std::uint8_t *ip)
        : v4(ip[0] >> 4 == 4), source(ip + (v4 ? 12 : 8)), destination(ip + (v4 ? 16 : 24))
    {
    }
    [[nodiscard]] std::size_t addr_len() const { return v4 ? ipv4_addr_len : ipv6_addr_len; }
    [[nodiscard]] bool source_unspecified() const
    {
        static constexpr std::uint8_t unspecified[ipv6_addr_len] = {};
        return std::memcmp(source, unspecified, addr_len()) == 0;
    }
};
