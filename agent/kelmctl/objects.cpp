// SPDX-License-Identifier: GPL-2.0
#include "kelmctl/objects.h"

namespace kelmctl
{

namespace
{

const object table[] = {
    {"session", "receive sessions: detection of failures", session_commands},
    {"packet", "transmit packets: periodic transmission", packet_commands},
    {"statistics", "all counters, the module's included", statistics_commands},
    {"monitor", "events as they happen", monitor_commands},
    {"top", "sessions and packets, live", top_commands},
    {"agent", "the sessions of kelm-agent", agent_commands},
    {"tx-path", "the switch that starts transmission", tx_path_commands, false},
    {"debug", "how much kelm logs", debug_commands},
    {"sync", "the state of everything; mark and sweep", sync_commands},
};

} // namespace

constinit const std::span<const object> objects = table;

} // namespace kelmctl
