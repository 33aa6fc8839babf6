// SPDX-License-Identifier: GPL-2.0
//
// The requests of the agent protocol, ready to be sent. What each does and answers is described in
// kelm.h. These functions lay out what they are given; they leave judgement to kelm.
#pragma once

#include "kelm.h"
#include "libkelm/bytes.h"

namespace kelm
{

// One request, without the netlink header.
struct request {
    std::uint16_t type;          // kelm_message_numbers
    std::uint32_t discriminator; // repeated from the body, for error texts
    bytes body;
};

// KELM_MSG_TX_SET_PACKET; `packet_len` is taken from the bytes, whatever `settings` says. Packets
// are built by build_packet().
request set_packet(kelm_msg_tx_set_packet settings, byte_view packet);
// KELM_MSG_TX_DELETE_PACKET
request delete_packet(std::uint32_t discriminator);
// KELM_MSG_RX_SET_SESSION; `failure_packet_len` is taken from the bytes, whatever `settings` says.
// failure_message() will do for them.
request set_session(kelm_msg_rx_set_session settings, byte_view failure_packet);
// KELM_MSG_RX_DELETE_SESSION
request delete_session(std::uint32_t discriminator);
// KELM_MSG_GET_STATS, with KELM_STATS_*; discriminator 0 is all of them.
request get_stats(std::uint32_t discriminator, std::uint32_t flags);
// KELM_MSG_SYNC, with KELM_SYNC_*; without flags, a dump.
request sync(std::uint32_t flags);
// KELM_MSG_SET_DEBUG_LEVEL, with KELM_DEBUG_*; discriminator 0 is the module.
request set_debug_level(std::uint32_t discriminator, std::uint16_t level, std::uint32_t flags = 0);
// KELM_MSG_TX_PATH_READY
request tx_path_ready();
// KELM_MSG_SET_SESSION_STATS_INTERVAL; 0 stops the periodic statistics.
request set_stats_interval(std::uint16_t seconds);

// Whether kelm answers with a dump instead of an acknowledgement.
bool starts_dump(const request &);

// The request as one netlink message.
bytes encode(const request &, std::uint16_t flags, std::uint32_t sequence, std::uint32_t port_id);

// A session failure message for a session's `failure_packet`: a whole netlink message of type
// KELM_MSG_SESSION_FAILURE with the discriminator as its body.
bytes failure_message(std::uint32_t discriminator);

} // namespace kelm
