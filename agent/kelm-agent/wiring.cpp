// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/wiring.h"

namespace kelm_agent
{

namespace
{

std::optional<std::uint32_t> find_index(const std::string &name, const kelm::interfaces &links,
                                        std::string &obstacle)
{
    const auto index = links.index(name);
    if (!index)
        obstacle = "there is no interface " + name;
    return index;
}

std::optional<kelm::mac_address> find_destination(const session_config &config,
                                                  std::uint32_t ifindex, const neighbours &around,
                                                  std::string &obstacle)
{
    if (config.kind == session_kind::lag)
        return lag_multicast;
    if (config.peer_mac)
        return config.peer_mac;
    const auto found = around.find(ifindex, config.peer);
    if (!found)
        obstacle = "the Ethernet address of " + config.peer.text() + " is not known (yet)";
    return found;
}

std::optional<kelm::mac_address> find_source(const std::string &interface,
                                             const kelm::interfaces &links, std::string &obstacle)
{
    const auto own = links.mac(interface);
    if (!own)
        obstacle = interface + " is not an Ethernet interface";
    return own;
}

} // namespace

std::optional<wiring> find_wiring(const session_config &config, const kelm::interfaces &links,
                                  const neighbours &around, std::string &obstacle)
{
    obstacle.clear();
    wiring wires;
    if (config.interface.empty())
        return wires;
    const auto index = find_index(config.interface, links, obstacle);
    if (!index)
        return std::nullopt;
    wires.transmit_ifindex = wires.receive_ifindex = *index;

    const bool is_frame = config.kind == session_kind::echo || config.kind == session_kind::lag;
    if (!is_frame)
        return wires;
    const std::string &leaving_by = config.member.empty() ? config.interface : config.member;
    const auto leaving_index = find_index(leaving_by, links, obstacle);
    if (!leaving_index)
        return std::nullopt;
    wires.transmit_ifindex = *leaving_index;
    const auto source = find_source(leaving_by, links, obstacle);
    const auto destination = find_destination(config, *leaving_index, around, obstacle);
    if (!source || !destination)
        return std::nullopt;
    wires.ethernet = {.destination = *destination, .source = *source};
    return wires;
}

} // namespace kelm_agent
