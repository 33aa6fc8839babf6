// SPDX-License-Identifier: GPL-2.0
#include <linux/bitops.h> /* net/checksum.h needs it */
#include <net/checksum.h>
#include <net/ip6_checksum.h>

#include "platform/linux/glue.h"

uint32_t kelm_csum_partial(const void *buff, int len, uint32_t sum)
{
    return (__force uint32_t)csum_partial(buff, len, (__force __wsum)sum);
}

uint16_t kelm_csum_tcpudp_magic(uint32_t saddr, uint32_t daddr, uint32_t len, uint8_t proto,
                                uint32_t sum)
{
    return (__force uint16_t)csum_tcpudp_magic((__force __be32)saddr, (__force __be32)daddr, len,
                                               proto, (__force __wsum)sum);
}

uint16_t kelm_csum_ipv6_magic(const void *saddr, const void *daddr, uint32_t len, uint8_t proto,
                              uint32_t sum)
{
    return (__force uint16_t)csum_ipv6_magic(saddr, daddr, len, proto, (__force __wsum)sum);
}
