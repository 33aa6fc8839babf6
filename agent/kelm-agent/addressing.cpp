// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/addressing.h"

namespace kelm_agent
{

namespace
{

std::optional<std::uint32_t> find_index(const std::string &name, const kelm::interfaces &links,
                                        std::string &problem)
{
    const auto index = links.index(name);
    if (!index)
        problem = "there is no interface " + name;
    return index;
}

std::optional<kelm::mac_address> find_destination(const session_config &config,
                                                  std::uint32_t ifindex, const neighbours &around,
                                                  std::string &problem)
{
    if (config.kind == session_kind::lag)
        return lag_multicast;
    if (config.peer_mac)
        return config.peer_mac;
    const auto found = around.find(ifindex, config.peer);
    if (!found)
        problem = "the Ethernet address of " + config.peer.text() + " is not known yet";
    return found;
}

std::optional<kelm::mac_address> find_source(const std::string &interface,
                                             const kelm::interfaces &links, std::string &problem)
{
    const auto own = links.mac(interface);
    if (!own)
        problem = interface + " is not an Ethernet interface";
    return own;
}

} // namespace

bool addressing::operator==(const addressing &other) const
{
    const auto same_ethernet = [&] {
        if (!ethernet || !other.ethernet)
            return ethernet.has_value() == other.ethernet.has_value();
        return ethernet->source == other.ethernet->source &&
               ethernet->destination == other.ethernet->destination;
    };
    return transmit_ifindex == other.transmit_ifindex && receive_ifindex == other.receive_ifindex &&
           same_ethernet();
}

std::optional<addressing> find_addressing(const session_config &config,
                                          const kelm::interfaces &links, const neighbours &around,
                                          std::string &problem)
{
    problem.clear();
    addressing addresses;
    if (config.interface.empty())
        return addresses;
    const auto index = find_index(config.interface, links, problem);
    if (!index)
        return std::nullopt;
    addresses.transmit_ifindex = addresses.receive_ifindex = *index;

    const bool is_frame = config.kind == session_kind::echo || config.kind == session_kind::lag;
    if (!is_frame)
        return addresses;
    const std::string &leaving_by = config.member.empty() ? config.interface : config.member;
    const auto leaving_index = find_index(leaving_by, links, problem);
    if (!leaving_index)
        return std::nullopt;
    addresses.transmit_ifindex = *leaving_index;
    const auto source = find_source(leaving_by, links, problem);
    const auto destination = find_destination(config, *leaving_index, around, problem);
    if (!source || !destination)
        return std::nullopt;
    addresses.ethernet = {.destination = *destination, .source = *source};
    return addresses;
}

} // namespace kelm_agent
