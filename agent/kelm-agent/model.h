// SPDX-License-Identifier: GPL-2.0
//
// The configuration, validated and complete.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "kelm-agent/negotiation.h"
#include "libkelm/address.h"
#include "libkelm/session_kind.h"

namespace kelm_agent
{

// An echo session is on its own (RFC 9747), or the guard of a single-hop session (RFC 5881 section
// 3, RFC 5880 section 6.4). An S-BFD session is an initiator, a LAG session one member link.
using kelm::session_kind;

struct auth_key {
    std::uint8_t id = 0;
    kelm::bytes secret;
    bool operator==(const auth_key &) const = default;
};

struct authentication {
    std::uint8_t type = BFD_AUTH_NONE;
    std::vector<auth_key> keys; // one or two, none for types without keys; each is accepted
    std::size_t sending = 0;    // index of the key that our packets use
    bool operator==(const authentication &) const = default;
};

struct session_config {
    std::string name;
    session_kind kind = session_kind::single_hop;
    std::string netns; // as in_netns() takes it
    kelm::ip_address local;
    kelm::ip_address peer;
    std::string interface;                     // empty: any
    std::string member;                        // LAG: member link of the aggregate `interface`
    std::optional<kelm::mac_address> peer_mac; // echo: the neighbour's, if configured
    std::uint32_t remote_discriminator = 0;    // S-BFD: the reflector's

    intervals timing{300'000, 300'000};
    std::uint8_t multiplier = 3;
    bool passive = false;
    bool admin_down = false;
    std::uint8_t ttl = 255;        // or hop limit, of packets sent
    std::uint8_t required_ttl = 0; // KELM_AUTH_TTL_*, of packets received
    std::uint8_t minimum_ttl = 0;  // the same; packets with less tell the state machine nothing
    authentication auth;
    kelm_microsecs min_echo_rx = 0; // how often the peer may send echo packets; 0: never

    kelm::ip_address source; // echo: the packets' source address, if not `local`
    std::string on_change;   // program to run when the state changes; empty: none

    std::string guards; // echo: the session that fails with it, RFC 5880 section 6.8.5

    bool operator==(const session_config &) const = default;
};

// Address of a TCP service.
struct endpoint {
    kelm::ip_address address;
    std::uint16_t port = 0;
    bool operator==(const endpoint &) const = default;
};

struct agent_config {
    std::vector<session_config> sessions; // names are unique
    std::string metrics_file;             // empty: none
    std::optional<endpoint> metrics_listen;
    bool operator==(const agent_config &) const = default;
};

// Everything that identifies a session: if it changes, the session is another one.
std::string identity_text(const session_config &);

// The echo session that guards a session of this name.
std::string guard_name(const std::string &session);

std::string kind_name(session_kind);
std::optional<session_kind> kind_named(std::string_view);

// Whether received packets are our own, or reflections of them.
constexpr bool is_alone(session_kind kind)
{
    return kind == session_kind::echo || kind == session_kind::sbfd;
}

} // namespace kelm_agent
