// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/matching.h"

namespace kelm_agent
{

std::uint16_t destination_port(session_kind kind)
{
    switch (kind) {
    case session_kind::single_hop:
        return kelm::port_single_hop;
    case session_kind::echo:
        return kelm::port_echo;
    case session_kind::lag:
        return kelm::port_lag;
    case session_kind::multihop:
        return kelm::port_multihop;
    case session_kind::sbfd:
        return kelm::port_sbfd_reflector;
    }
    return 0;
}

std::uint16_t arrival_port(session_kind kind)
{
    return kind == session_kind::sbfd ? kelm::port_sbfd_initiator : destination_port(kind);
}

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
