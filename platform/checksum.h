// SPDX-License-Identifier: GPL-2.0
//
// Internet checksums (RFC 1071). Addresses and sums in network byte order. Any context.
#pragma once

#include <cstdint>

#include "platform/label.h"

extern "C" {

// Adds len bytes to a running 32-bit one's complement sum; for len even, sums can be chained.
[[nodiscard]] std::uint32_t csum_partial(const void *buff, int len, std::uint32_t sum)
    KELM_PLATFORM(csum_partial);

// Adds the IPv4 or IPv6 pseudo-header to the sum, folds and complements it: the 16-bit checksum
// as it goes into the packet. IPv6 addresses are 16 bytes each.
[[nodiscard]] std::uint16_t csum_tcpudp_magic(std::uint32_t saddr, std::uint32_t daddr,
                                              std::uint32_t len, std::uint8_t proto,
                                              std::uint32_t sum) KELM_PLATFORM(csum_tcpudp_magic);
[[nodiscard]] std::uint16_t csum_ipv6_magic(const void *saddr, const void *daddr, std::uint32_t len,
                                            std::uint8_t proto, std::uint32_t sum)
    KELM_PLATFORM(csum_ipv6_magic);
}
