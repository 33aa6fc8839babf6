// SPDX-License-Identifier: GPL-2.0
//
// BFD packets as they came from the wire: taken apart for people and state machines.
#pragma once

#include "libkelm/packet.h"
#include "libkelm/report.h"

namespace kelm
{

// The authentication section, without its secret.
struct bfd_auth_info {
    std::uint8_t type = BFD_AUTH_NONE;
    std::uint8_t length = 0;
    std::uint8_t key_id = 0;               // 0 for the debug sequence number, which has none
    std::optional<std::uint32_t> sequence; // for the types that have one
};

// A control packet.
struct bfd_packet {
    std::uint8_t version = 0;
    std::uint8_t length = 0; // as the packet says, not as received
    bool multipoint = false;
    bool auth_present = false;
    bfd_fields fields;
    std::optional<bfd_auth_info>
        auth; // of a packet with the A bit, and of one with a debug trailer
};

// Nothing if there are fewer than 24 bytes; what the packet says is not judged.
std::optional<bfd_packet> decode_bfd(byte_view control);

// A control packet with what carried it.
struct frame_info {
    ip_address source; // family 0 where there is no readable IP header
    ip_address destination;
    std::uint8_t ttl = 0; // or hop limit
    std::uint16_t source_port = 0;
    std::uint16_t destination_port = 0;
    bfd_packet bfd;
};

// Nothing if the frame holds no BFD packet where it should.
std::optional<frame_info> decode_frame(const packet_view &);

inline std::optional<frame_info> decode_frame(const packet_change &change)
{
    return decode_frame(packet_view{change.discriminator, change.ifindex, change.member_ifindex,
                                    change.l3_offset, change.bfd_offset, change.frame});
}

} // namespace kelm
