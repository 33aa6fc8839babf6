// SPDX-License-Identifier: GPL-2.0
//
// What kelm tells an agent: statistics, changes, failures, the state of its tables.
#pragma once

#include <variant>

#include "kelm.h"
#include "libkelm/message.h"

namespace kelm
{

// KELM_MSG_RX_PACKET_CHANGE. Both offsets lie inside the frame or at its end.
struct packet_change {
    std::uint32_t discriminator;
    std::uint32_t ifindex;
    std::uint32_t member_ifindex;
    std::uint32_t l3_offset;
    std::uint32_t bfd_offset;
    bytes frame;
};

// A failure message as failure_message() builds it; what other agents append is kept.
struct session_failure {
    std::uint32_t discriminator;
    bytes rest;
};

// A message of a type that is not kelm's, or one that does not hold what its type promises. A
// failure message in another agent's own format arrives as such.
struct unknown_message {
    std::uint16_t type;
    bytes body;
};

// Multicasts have been lost; a sync dump tells where things stand.
struct overrun {
};

using report =
    std::variant<kelm_msg_rx_stats, kelm_msg_tx_stats, kelm_msg_module_stats, packet_change,
                 kelm_msg_rx_sync, kelm_msg_tx_sync, session_failure, unknown_message, overrun>;

// Takes any bytes; never fails.
report parse_report(const message &);

} // namespace kelm
