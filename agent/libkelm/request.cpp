// SPDX-License-Identifier: GPL-2.0
#include "libkelm/request.h"

#include <algorithm>
#include <cstring>
#include <linux/netlink.h>

#include "libkelm/message.h"

namespace kelm
{

namespace
{

// Every body begins with its kelm_msg_header.
template<typename T>
request make(std::uint16_t type, const T &body, byte_view variable_part = {})
{
    bytes encoded(sizeof body + variable_part.size());
    std::memcpy(encoded.data(), &body, sizeof body);
    std::ranges::copy(variable_part, encoded.begin() + sizeof body);
    return {type, body.header.discriminator, std::move(encoded)};
}

// The length is filled in.
bytes netlink_message(nlmsghdr header, byte_view body)
{
    const std::size_t length = sizeof header + body.size();
    header.nlmsg_len = static_cast<std::uint32_t>(length);
    bytes encoded((length + NLMSG_ALIGNTO - 1) / NLMSG_ALIGNTO * NLMSG_ALIGNTO);
    std::memcpy(encoded.data(), &header, sizeof header);
    std::ranges::copy(body, encoded.begin() + sizeof header);
    return encoded;
}

} // namespace

request set_packet(kelm_msg_tx_set_packet settings, byte_view packet)
{
    settings.packet_len = static_cast<std::uint32_t>(packet.size());
    return make(KELM_MSG_TX_SET_PACKET, settings, packet);
}

request delete_packet(std::uint32_t discriminator)
{
    return make(KELM_MSG_TX_DELETE_PACKET, kelm_msg_tx_delete_packet{.header = {discriminator}});
}

request set_session(kelm_msg_rx_set_session settings, byte_view failure_packet)
{
    settings.failure_packet_len = static_cast<std::uint32_t>(failure_packet.size());
    return make(KELM_MSG_RX_SET_SESSION, settings, failure_packet);
}

request delete_session(std::uint32_t discriminator)
{
    return make(KELM_MSG_RX_DELETE_SESSION, kelm_msg_rx_delete_session{.header = {discriminator}});
}

request get_stats(std::uint32_t discriminator, std::uint32_t flags)
{
    return make(KELM_MSG_GET_STATS, kelm_msg_get_stats{.header = {discriminator}, .flags = flags});
}

request sync(std::uint32_t flags)
{
    return make(KELM_MSG_SYNC, kelm_msg_sync{.header = {0}, .flags = flags});
}

request set_debug_level(std::uint32_t discriminator, std::uint16_t level, std::uint32_t flags)
{
    return make(KELM_MSG_SET_DEBUG_LEVEL, kelm_msg_set_debug_level{.header = {discriminator},
                                                                   .flags = flags,
                                                                   .debug_level = level,
                                                                   .padding = {}});
}

request tx_path_ready()
{
    return make(KELM_MSG_TX_PATH_READY, kelm_msg_tx_path_ready{.header = {0}});
}

request set_stats_interval(std::uint16_t seconds)
{
    return make(
        KELM_MSG_SET_SESSION_STATS_INTERVAL,
        kelm_msg_set_session_stats_interval{.header = {0}, .interval = seconds, .padding = {}});
}

bool starts_dump(const request &req)
{
    kelm_msg_get_stats stats;
    kelm_msg_sync sync_body;
    if (req.type == KELM_MSG_SYNC)
        return read_into(sync_body, req.body) && sync_body.flags == 0;
    if (req.type == KELM_MSG_GET_STATS)
        return read_into(stats, req.body) && (stats.header.discriminator == 0 || stats.flags != 0);
    return false;
}

bytes encode(const request &req, std::uint16_t flags, std::uint32_t sequence, std::uint32_t port_id)
{
    return netlink_message({.nlmsg_len = 0,
                            .nlmsg_type = req.type,
                            .nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags),
                            .nlmsg_seq = sequence,
                            .nlmsg_pid = port_id},
                           req.body);
}

bytes failure_message(std::uint32_t discriminator)
{
    const kelm_msg_header body = {discriminator};
    return netlink_message({.nlmsg_len = 0,
                            .nlmsg_type = KELM_MSG_SESSION_FAILURE,
                            .nlmsg_flags = 0,
                            .nlmsg_seq = 0,
                            .nlmsg_pid = 0},
                           {reinterpret_cast<const std::uint8_t *>(&body), sizeof body});
}

} // namespace kelm
