// SPDX-License-Identifier: GPL-2.0
#include "libkelm/report.h"

namespace kelm
{

namespace
{

using parsed = std::optional<report>;

template<typename T>
parsed parse_plain(byte_view body)
{
    return read_as<T>(body);
}

parsed parse_packet_change(byte_view body)
{
    kelm_msg_rx_packet_change head;
    if (!read_into(head, body))
        return std::nullopt;
    const byte_view frame = body.subspan(sizeof head);
    if (head.packet_len > frame.size() || head.l3_offset > head.packet_len ||
        head.bfd_offset > head.packet_len)
        return std::nullopt;
    return packet_change{
        head.header.discriminator, head.ifindex,
        head.member_ifindex,       head.l3_offset,
        head.bfd_offset,           {frame.begin(), frame.begin() + head.packet_len}};
}

parsed parse_failure(byte_view body)
{
    const auto head = read_as<kelm_msg_header>(body);
    if (!head)
        return std::nullopt;
    const byte_view rest = body.subspan(sizeof *head);
    return session_failure{head->discriminator, {rest.begin(), rest.end()}};
}

parsed parse_body(std::uint16_t type, byte_view body)
{
    switch (type) {
    case NLMSG_OVERRUN:
        return overrun{};
    case KELM_MSG_RX_STATS:
        return parse_plain<kelm_msg_rx_stats>(body);
    case KELM_MSG_TX_STATS:
        return parse_plain<kelm_msg_tx_stats>(body);
    case KELM_MSG_MODULE_STATS:
        return parse_plain<kelm_msg_module_stats>(body);
    case KELM_MSG_RX_PACKET_CHANGE:
        return parse_packet_change(body);
    case KELM_MSG_RX_SYNC:
        return parse_plain<kelm_msg_rx_sync>(body);
    case KELM_MSG_TX_SYNC:
        return parse_plain<kelm_msg_tx_sync>(body);
    case KELM_MSG_SESSION_FAILURE:
        return parse_failure(body);
    default:
        return std::nullopt;
    }
}

} // namespace

report parse_report(const message &msg)
{
    if (auto known = parse_body(msg.header.nlmsg_type, msg.body))
        return *std::move(known);
    return unknown_message{msg.header.nlmsg_type, {msg.body.begin(), msg.body.end()}};
}

} // namespace kelm
