// SPDX-License-Identifier: GPL-2.0
//
// Whether a packet's bytes hold the headers that its settings place in them. Checked when a
// packet is configured, and again before it is edited and sent: a request that fails half way
// leaves its settings beside the bytes of an earlier one.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kelm/kelm.h"

inline constexpr std::uint32_t udp_header_len = 8;

struct packet_layout {
    const std::uint8_t *packet;
    std::size_t packet_len;
    std::uint32_t ip_hdr_offset;
    std::uint32_t latch_offset; // of the BFD control packet, with the UDP header in front

    [[nodiscard]] bool bfd_header_fits() const
    {
        return std::uint64_t{latch_offset} + BFD_CTRL_LEN <= packet_len;
    }

    // Whether the UDP header and the IP header that its checksum covers are there.
    [[nodiscard]] bool udp_headers_fit() const
    {
        return bfd_header_fits() && latch_offset > udp_header_len && ip_header_fits(ip_hdr_offset);
    }

    // All of that, and for an IP packet the IP header at its start, which the send reads.
    [[nodiscard]] bool fits(std::uint32_t type) const
    {
        return udp_headers_fit() && (type != KELM_TX_SESSION_IP || ip_header_fits(0));
    }

  private:
    // Whether a whole IP header lies at offset, in front of the UDP header.
    [[nodiscard]] bool ip_header_fits(std::uint32_t offset) const
    {
        const std::uint32_t udp_offset = latch_offset - udp_header_len;
        if (offset >= udp_offset)
            return false;
        const std::uint32_t ip_header_len = packet[offset] >> 4 == 4 ? 20 : 40;
        return udp_offset - offset >= ip_header_len;
    }
};
