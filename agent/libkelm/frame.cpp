// SPDX-License-Identifier: GPL-2.0
#include "libkelm/frame.h"

#include <netinet/in.h>

namespace kelm
{

namespace
{

std::uint16_t u16_at(byte_view from, std::size_t offset)
{
    return static_cast<std::uint16_t>(from[offset] << 8 | from[offset + 1]);
}

std::uint32_t u32_at(byte_view from, std::size_t offset)
{
    return static_cast<std::uint32_t>(u16_at(from, offset)) << 16 | u16_at(from, offset + 2);
}

bool has_sequence(std::uint8_t auth_type)
{
    return (auth_type >= BFD_AUTH_KEYED_MD5 && auth_type <= BFD_AUTH_METICULOUS_SHA1) ||
           auth_type == BFD_AUTH_DEBUG_SEQNUM;
}

std::optional<bfd_auth_info> decode_auth(byte_view control, bool auth_present)
{
    const byte_view section = control.subspan(BFD_AUTH_OFFSET);
    if (section.size() < BFD_AUTH_COMMON_LEN)
        return std::nullopt;
    bfd_auth_info info = {.type = section[0], .length = section[1], .key_id = 0, .sequence = {}};
    if (!auth_present && info.type != BFD_AUTH_DEBUG_SEQNUM)
        return std::nullopt; // trailing bytes of no meaning here
    if (info.type != BFD_AUTH_DEBUG_SEQNUM)
        info.key_id = section[2];
    if (has_sequence(info.type) && section.size() >= 8)
        info.sequence = u32_at(section, 4);
    return info;
}

void decode_ip(byte_view ip, frame_info &into)
{
    const int version = ip.empty() ? 0 : ip[0] >> 4;
    if (version == 4 && ip.size() >= 20) {
        into.ttl = ip[8];
        into.source = ip_address::from(AF_INET, &ip[12]);
        into.destination = ip_address::from(AF_INET, &ip[16]);
    } else if (version == 6 && ip.size() >= 40) {
        into.ttl = ip[7];
        into.source = ip_address::from(AF_INET6, &ip[8]);
        into.destination = ip_address::from(AF_INET6, &ip[24]);
    }
}

} // namespace

std::optional<bfd_packet> decode_bfd(byte_view control)
{
    if (control.size() < BFD_CTRL_LEN)
        return std::nullopt;
    const std::uint8_t flags = control[1];
    bfd_packet packet;
    packet.version = control[0] >> BFD_VERSION_SHIFT;
    packet.length = control[3];
    packet.multipoint = (flags & BFD_FLAG_MULTIPOINT) != 0;
    packet.auth_present = (flags & BFD_FLAG_AUTH_PRESENT) != 0;
    packet.fields = {
        .diag = static_cast<std::uint8_t>(control[0] & BFD_DIAG_MASK),
        .state = static_cast<std::uint8_t>(flags >> BFD_STATE_SHIFT),
        .poll = (flags & BFD_FLAG_POLL) != 0,
        .final = (flags & BFD_FLAG_FINAL) != 0,
        .control_plane_independent = (flags & BFD_FLAG_CONTROL_PLANE_INDEPENDENT) != 0,
        .demand_mode = (flags & BFD_FLAG_DEMAND_MODE) != 0,
        .detect_multiplier = control[2],
        .my_discriminator = u32_at(control, 4),
        .your_discriminator = u32_at(control, 8),
        .min_tx_interval = u32_at(control, 12),
        .min_rx_interval = u32_at(control, 16),
        .min_echo_rx_interval = u32_at(control, 20),
    };
    packet.auth = decode_auth(control, packet.auth_present);
    return packet;
}

std::optional<frame_info> decode_frame(const packet_view &change)
{
    const byte_view frame = change.frame;
    if (change.bfd_offset > frame.size() || change.l3_offset > frame.size())
        return std::nullopt;
    const auto bfd = decode_bfd(frame.subspan(change.bfd_offset));
    if (!bfd)
        return std::nullopt;
    frame_info info;
    info.bfd = *bfd;
    decode_ip(frame.subspan(change.l3_offset), info);
    if (change.bfd_offset >= 8) {
        info.source_port = u16_at(frame, change.bfd_offset - 8);
        info.destination_port = u16_at(frame, change.bfd_offset - 6);
    }
    return info;
}

} // namespace kelm
