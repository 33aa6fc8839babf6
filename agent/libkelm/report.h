// SPDX-License-Identifier: GPL-2.0
//
// What kelm tells an agent: statistics, changes, failures, the state of its tables. A message is
// checked once, when it arrives; C structures and C++ types are both made from what was checked.
#pragma once

#include <cstdint>
#include <optional>
#include <variant>

#include "kelm.h"
#include "libkelm/message.h"

namespace kelm
{

// A message from kelm, checked.
struct raw_report {
    std::uint16_t type;
    // The body holds the structure of kelm.h for this type, if the type is kelm's; of a packet
    // change, nothing behind the frame, and offsets that lie inside the frame or at its end.
    bool is_well_formed;
    bytes body;
};

// Takes any bytes; never fails.
raw_report check_report(const message &);

// KELM_MSG_RX_PACKET_CHANGE. Both offsets lie inside the frame or at its end.
template<typename Frame>
struct basic_packet_change {
    std::uint32_t discriminator;
    std::uint32_t ifindex;
    std::uint32_t member_ifindex;
    std::uint32_t l3_offset;
    std::uint32_t bfd_offset;
    Frame frame;
};

using packet_change = basic_packet_change<bytes>;
using packet_view = basic_packet_change<byte_view>; // into the body

// Nothing if the frame is longer than the body, or if an offset lies outside the frame.
std::optional<packet_view> view_packet(byte_view body);

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

report decode_report(raw_report);

} // namespace kelm
