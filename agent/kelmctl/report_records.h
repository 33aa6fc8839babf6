// SPDX-License-Identifier: GPL-2.0
//
// Records of what kelm reports; the same in listings, in dumps and in the monitor.
#pragma once

#include "kelmctl/record.h"
#include "libkelm/interfaces.h"
#include "libkelm/report.h"

namespace kelmctl
{

// Where a message comes from, in a dump of all namespaces: 1 is the newest vrf. 0 elsewhere.
using vrf_number = std::uint32_t;

// `state` goes in front of the counters.
record rx_stats_record(const kelm_msg_rx_stats &, vrf_number = 0, const record &state = {});
record tx_stats_record(const kelm_msg_tx_stats &, vrf_number = 0);
record module_stats_record(const kelm_msg_module_stats &, vrf_number = 0);

// The cells of a received frame, in JSON inside "packet". Of the brief ones a listing wants only
// `who_and_state`.
enum class frame_cells { everything, who_and_state };
void add_frame(record &, const kelm::packet_change &, const kelm::interfaces &, frame_cells);

// A record of any report. Its JSON key "message" tells the kind.
record report_record(const kelm::report &, const kelm::interfaces &);

} // namespace kelmctl
