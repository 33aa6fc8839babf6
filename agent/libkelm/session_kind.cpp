// SPDX-License-Identifier: GPL-2.0
#include "libkelm/session_kind.h"

#include <iterator>

#include "libkelm/packet.h"

namespace kelm
{

namespace
{

struct ports {
    std::uint16_t destination;
    std::uint16_t arrival;
};

// By session_kind.
constexpr ports kind_ports[] = {
    {port_single_hop, port_single_hop},
    {port_echo, port_echo},
    {port_lag, port_lag},
    {port_multihop, port_multihop},
    {port_sbfd_reflector, port_sbfd_initiator},
};
static_assert(std::size(kind_ports) == KELM_RX_SESSION_MAX);

const ports &ports_of(session_kind kind)
{
    return kind_ports[static_cast<std::uint8_t>(kind)];
}

} // namespace

std::uint16_t destination_port(session_kind kind)
{
    return ports_of(kind).destination;
}

std::uint16_t arrival_port(session_kind kind)
{
    return ports_of(kind).arrival;
}

std::uint16_t source_port(session_kind kind, std::uint32_t discriminator)
{
    if (kind == session_kind::sbfd)
        return port_sbfd_initiator; // reflections come there
    return static_cast<std::uint16_t>(first_source_port + discriminator % source_port_count);
}

} // namespace kelm
