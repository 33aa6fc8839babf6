// SPDX-License-Identifier: GPL-2.0
#include "platform/checksum.h"

#include <arpa/inet.h>
#include <cstring>

namespace
{

std::uint32_t fold_to_32(std::uint64_t sum)
{
    sum = (sum & 0xffffffff) + (sum >> 32);
    sum = (sum & 0xffffffff) + (sum >> 32);
    return static_cast<std::uint32_t>(sum);
}

std::uint16_t fold_and_complement(std::uint64_t sum)
{
    std::uint32_t folded = fold_to_32(sum);
    folded = (folded & 0xffff) + (folded >> 16);
    folded = (folded & 0xffff) + (folded >> 16);
    return static_cast<std::uint16_t>(~folded);
}

} // namespace

std::uint32_t csum_partial(const void *buff, int len, std::uint32_t sum)
{
    const auto *byte = static_cast<const unsigned char *>(buff);
    std::uint64_t total = sum;
    for (; len >= 4; len -= 4, byte += 4) {
        std::uint32_t word;
        std::memcpy(&word, byte, sizeof word);
        total += word;
    }
    std::uint32_t rest = 0; // the bytes left over, zero behind them, as they lie in memory
    if (len > 0)
        std::memcpy(&rest, byte, static_cast<std::size_t>(len));
    return fold_to_32(total + rest);
}

std::uint16_t csum_tcpudp_magic(std::uint32_t saddr, std::uint32_t daddr, std::uint32_t len,
                                std::uint8_t proto, std::uint32_t sum)
{
    std::uint64_t total = sum;
    total += saddr;
    total += daddr;
    total += htonl(len + proto);
    return fold_and_complement(total);
}

std::uint16_t csum_ipv6_magic(const void *saddr, const void *daddr, std::uint32_t len,
                              std::uint8_t proto, std::uint32_t sum)
{
    std::uint64_t total = sum;
    total += csum_partial(saddr, 16, 0);
    total += csum_partial(daddr, 16, 0);
    total += htonl(len);
    total += htonl(proto);
    return fold_and_complement(total);
}
