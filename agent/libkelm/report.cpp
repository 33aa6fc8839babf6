// SPDX-License-Identifier: GPL-2.0
#include "libkelm/report.h"

#include <utility>

namespace kelm
{

namespace
{

// How much of the body is the structure for the type; nothing if the body is shorter than that.
std::optional<std::size_t> structure_length(std::uint16_t type, byte_view body)
{
    const auto at_least = [&body](std::size_t size) {
        return body.size() < size ? std::nullopt : std::optional(body.size());
    };
    switch (type) {
    case KELM_MSG_RX_STATS:
        return at_least(sizeof(kelm_msg_rx_stats));
    case KELM_MSG_TX_STATS:
        return at_least(sizeof(kelm_msg_tx_stats));
    case KELM_MSG_MODULE_STATS:
        return at_least(sizeof(kelm_msg_module_stats));
    case KELM_MSG_RX_SYNC:
        return at_least(sizeof(kelm_msg_rx_sync));
    case KELM_MSG_TX_SYNC:
        return at_least(sizeof(kelm_msg_tx_sync));
    case KELM_MSG_SESSION_FAILURE:
        return at_least(sizeof(kelm_msg_header));
    case KELM_MSG_RX_PACKET_CHANGE:
        if (const auto packet = view_packet(body))
            return sizeof(kelm_msg_rx_packet_change) + packet->frame.size();
        return std::nullopt;
    default: // another agent's own, or a request, which kelm does not send
        if (type >= KELM_MSG_MIN && type < KELM_MSG_MAX)
            return std::nullopt;
        return body.size();
    }
}

bytes copy(byte_view from)
{
    return {from.begin(), from.end()};
}

packet_change decode_packet(byte_view body)
{
    const packet_view packet = *view_packet(body);
    return {.discriminator = packet.discriminator,
            .ifindex = packet.ifindex,
            .member_ifindex = packet.member_ifindex,
            .l3_offset = packet.l3_offset,
            .bfd_offset = packet.bfd_offset,
            .frame = copy(packet.frame)};
}

session_failure decode_failure(byte_view body)
{
    const auto head = *read_as<kelm_msg_header>(body);
    return {.discriminator = head.discriminator, .rest = copy(body.subspan(sizeof head))};
}

} // namespace

std::optional<packet_view> view_packet(byte_view body)
{
    kelm_msg_rx_packet_change head;
    if (!read_into(head, body))
        return std::nullopt;
    const byte_view rest = body.subspan(sizeof head);
    if (head.packet_len > rest.size() || head.l3_offset > head.packet_len ||
        head.bfd_offset > head.packet_len)
        return std::nullopt;
    return packet_view{.discriminator = head.header.discriminator,
                       .ifindex = head.ifindex,
                       .member_ifindex = head.member_ifindex,
                       .l3_offset = head.l3_offset,
                       .bfd_offset = head.bfd_offset,
                       .frame = rest.first(head.packet_len)};
}

raw_report check_report(const message &msg)
{
    const auto length = structure_length(msg.header.nlmsg_type, msg.body);
    return {.type = msg.header.nlmsg_type,
            .is_well_formed = length.has_value(),
            .body = copy(msg.body.first(length.value_or(msg.body.size())))};
}

report decode_report(raw_report raw)
{
    if (!raw.is_well_formed)
        return unknown_message{raw.type, std::move(raw.body)};
    switch (raw.type) {
    case NLMSG_OVERRUN:
        return overrun{};
    case KELM_MSG_RX_STATS:
        return *read_as<kelm_msg_rx_stats>(raw.body);
    case KELM_MSG_TX_STATS:
        return *read_as<kelm_msg_tx_stats>(raw.body);
    case KELM_MSG_MODULE_STATS:
        return *read_as<kelm_msg_module_stats>(raw.body);
    case KELM_MSG_RX_PACKET_CHANGE:
        return decode_packet(raw.body);
    case KELM_MSG_RX_SYNC:
        return *read_as<kelm_msg_rx_sync>(raw.body);
    case KELM_MSG_TX_SYNC:
        return *read_as<kelm_msg_tx_sync>(raw.body);
    case KELM_MSG_SESSION_FAILURE:
        return decode_failure(raw.body);
    default:
        return unknown_message{raw.type, std::move(raw.body)};
    }
}

} // namespace kelm
