// SPDX-License-Identifier: GPL-2.0
#pragma once

#include <map>
#include <utility>

#include "kelmctl/context.h"
#include "kelmctl/report_records.h"

namespace kelmctl
{

using statistics_key = std::pair<vrf_number, std::uint32_t>; // and discriminator

// A statistics dump in order, each record once.
struct statistics {
    std::map<statistics_key, kelm_msg_rx_stats> sessions;
    std::map<statistics_key, kelm_msg_tx_stats> packets;
    std::map<vrf_number, kelm_msg_module_stats> modules;
};

// Of one discriminator, or of all (0); of all namespaces if the options say so. `flags`:
// KELM_STATS_CLEAR.
statistics read_statistics(context &, std::uint32_t discriminator, std::uint32_t flags = 0);

std::vector<record> session_records(const statistics &);
std::vector<record> packet_records(const statistics &);
std::vector<record> module_records(const statistics &);

} // namespace kelmctl
