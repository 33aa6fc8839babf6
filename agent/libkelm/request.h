// SPDX-License-Identifier: GPL-2.0
//
// The requests of the agent protocol, ready to be sent. What each does and answers is told in
// kelm.h. These functions lay out what they are given; they leave judgement to kelm.
#ifndef LIBKELM_REQUEST_H
#define LIBKELM_REQUEST_H

#include "kelm.h"
#include "libkelm/bytes.h"

namespace kelm
{

struct request {
    uint16_t type;          // kelm_message_numbers
    uint32_t discriminator; // repeated from the body, for error texts
    bytes body;
};

// `packet_len` and `failure_packet_len` are taken from the bytes, whatever `settings` says.
request set_packet(kelm_msg_tx_set_packet settings, byte_view packet);
request delete_packet(uint32_t discriminator);
request set_session(kelm_msg_rx_set_session settings, byte_view failure_packet);
request delete_session(uint32_t discriminator);
request get_stats(uint32_t discriminator, uint32_t flags);
request sync(uint32_t flags);
request set_debug_level(uint32_t discriminator, uint16_t level, uint32_t flags = 0);
request tx_path_ready();
request set_stats_interval(uint16_t seconds);

// Whether kelm answers with a dump instead of an acknowledgement.
bool starts_dump(const request &);

// The request as one netlink message.
bytes encode(const request &, uint16_t flags, uint32_t sequence, uint32_t port_id);

// A session failure message for a session's `failure_packet`: a whole netlink message of type
// KELM_MSG_SESSION_FAILURE with the discriminator as its body.
bytes failure_message(uint32_t discriminator);

} // namespace kelm

#endif
