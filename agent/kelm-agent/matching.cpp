// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/matching.h"

namespace kelm_agent
{

const kelm::ip_address &arrival_source(const session_config &config)
{
    if (config.kind != session_kind::echo)
        return config.peer;
    return config.source.family != 0 ? config.source : config.local;
}

bool is_from_peer(const session_config &config, const addressing &addresses,
                  const kelm::packet_change &change, const kelm::frame_info &frame)
{
    const bool is_on_other_member = config.kind == session_kind::lag &&
                                    change.member_ifindex != 0 &&
                                    change.member_ifindex != addresses.transmit_ifindex;
    return !is_on_other_member && frame.destination_port == arrival_port(config.kind) &&
           frame.source == arrival_source(config) && frame.destination == config.local &&
           (addresses.receive_ifindex == 0 || addresses.receive_ifindex == change.ifindex);
}

bool is_addressed_to(const session_config &config, const addressing &addresses,
                     const kelm::packet_change &change, const kelm::frame_info &frame)
{
    return (config.kind != session_kind::lag || change.member_ifindex != 0) &&
           is_from_peer(config, addresses, change, frame);
}

} // namespace kelm_agent
