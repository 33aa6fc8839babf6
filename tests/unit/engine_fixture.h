// SPDX-License-Identifier: GPL-2.0
//
// What tests of the engine say to it, and how they read what it answers.
#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim_fixture.h"

namespace sim
{

// For agent_options.groups.
inline constexpr std::uint32_t CONTROL = 1U << (KELM_NLG_NUM_CONTROL - 1);
inline constexpr std::uint32_t NOTIFICATION = 1U << (KELM_NLG_NUM_NOTIFICATION - 1);

// The result of a request that was not acknowledged.
inline constexpr int UNANSWERED = 1;

// Sends a request and returns what its acknowledgement says: 0 or a negative error number.
int ask(agent &a, std::uint16_t type, std::span<const std::uint8_t> body);

template<class Body>
requires(!std::convertible_to<const Body &, std::span<const std::uint8_t>>) int ask(
    agent &a, std::uint16_t type, const Body &body)
{
    return ask(a, type, as_bytes(body));
}

// The requests, each with the fields that its test cares about. A packet is a control packet of
// its discriminator in an IPv4 datagram, a session a bare one, its timer not active.
int set_packet(agent &a, std::uint32_t discriminator, kelm_msg_tx_set_packet fixed = {});
int set_session(agent &a, std::uint32_t discriminator, const kelm_msg_rx_set_session &fixed = {});
int delete_packet(agent &a, std::uint32_t discriminator);
int delete_session(agent &a, std::uint32_t discriminator);
int path_ready(agent &a, std::uint32_t discriminator = 0);
int set_interval(agent &a, std::uint16_t seconds, std::uint32_t discriminator = 0);
int set_debug_level(agent &a, std::uint16_t level, std::uint32_t discriminator = 0,
                    std::uint32_t flags = 0);
int mark_or_sweep(agent &a, std::uint32_t flags);

// The body of KELM_MSG_GET_STATS.
bytes stats_request(std::uint32_t discriminator, std::uint32_t flags);

// Dumps, read to their end.
dump_result get_stats(agent &a, std::uint32_t discriminator, std::uint32_t flags);
dump_result sync_dump(agent &a);

// The statistics of one packet or session by a reply of their own, which clears nothing; of the
// agent's vrf, by a dump.
std::optional<kelm_msg_tx_stats> tx_stats(agent &a, std::uint32_t discriminator);
std::optional<kelm_msg_rx_stats> rx_stats(agent &a, std::uint32_t discriminator);
kelm_msg_module_stats module_stats(agent &a);

// A packet for a session arrives in a namespace. False if nobody listens.
bool receive(world &w, net &ns, std::uint32_t discriminator);
bool receive(world &w, std::uint32_t discriminator); // the initial one

// "rx_stats 5", "module_stats", "packet_change 5", "ack -22", "done 0", ...
std::string name(const message &m);
std::vector<std::string> names(const std::vector<message> &messages);

// The messages of one kind, as structures.
template<class Body>
std::vector<Body> bodies(const std::vector<message> &messages, std::uint16_t type)
{
    std::vector<Body> result;
    for (const message &m : messages) {
        if (m.header.nlmsg_type == type)
            result.push_back(read_as<Body>(m.body));
    }
    return result;
}

} // namespace sim
