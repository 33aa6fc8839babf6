// SPDX-License-Identifier: GPL-2.0
//
// The UDP checksum of a packet, over the IPv4 or IPv6 pseudo-header.
#include "kelm/byte_order.h"
#include "kelm/ip_addresses.h"
#include "kelm/tx_internal.h"
#include "platform/checksum.h"

namespace
{
constexpr std::uint8_t IPPROTO_UDP = 17;
constexpr std::size_t UDP_CHECK_OFFSET = 6;
} // namespace

void update_udp_checksum(tx_packet *packet, bool force)
{
    if ((packet->auth.type == BFD_AUTH_NONE && !force) || !packet->layout().udp_headers_fit())
        return;
    const auto udp_len =
        static_cast<std::uint32_t>(packet->packet_len - packet->latch_offset + UDP_HEADER_LEN);
    std::uint8_t *udp = packet->packet + packet->latch_offset - UDP_HEADER_LEN;
    store_host<std::uint16_t>(udp + UDP_CHECK_OFFSET, 0);
    const std::uint32_t sum = csum_partial(udp, static_cast<int>(udp_len), 0);
    const ip_addresses ip(packet->packet + packet->ip_hdr_offset);
    const std::uint16_t check =
        ip.v4
            ? csum_tcpudp_magic(load_host<std::uint32_t>(ip.source),
                                load_host<std::uint32_t>(ip.destination), udp_len, IPPROTO_UDP, sum)
            : csum_ipv6_magic(ip.source, ip.destination, udp_len, IPPROTO_UDP, sum);
    // 0 would say that there is no checksum (RFC 768).
    store_host<std::uint16_t>(udp + UDP_CHECK_OFFSET, check != 0 ? check : std::uint16_t{0xFFFF});
}
