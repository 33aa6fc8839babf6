// SPDX-License-Identifier: GPL-2.0
//
// What tests of the engine say to it, and how they read what it answers.
#pragma once

#include <concepts>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/sim/machine.h"
#include "wire_fixture.h"

namespace sim
{

// For agent_options.groups.
inline constexpr std::uint32_t control_group = 1U << (KELM_NLG_NUM_CONTROL - 1);
inline constexpr std::uint32_t notification_group = 1U << (KELM_NLG_NUM_NOTIFICATION - 1);

using strings = std::vector<std::string>;

// The result of a request that was not acknowledged.
inline constexpr int unanswered = 1;

// Sends a request and returns what its acknowledgement says: 0 or a negative error number.
inline int ask(agent &a, std::uint16_t type, std::span<const std::uint8_t> body)
{
    return a.request(type, body).value_or(unanswered);
}

template<typename Body>
requires(!std::convertible_to<const Body &, std::span<const std::uint8_t>>) int ask(
    agent &a, std::uint16_t type, const Body &body)
{
    return ask(a, type, as_bytes(body));
}

inline int set(agent &a, std::uint32_t discriminator, const outgoing &packet,
               const kelm_msg_tx_set_packet &fixed = tx{})
{
    return ask(a, KELM_MSG_TX_SET_PACKET, set_request(discriminator, packet, fixed));
}

// A control packet of this discriminator.
inline int set_packet(agent &a, std::uint32_t discriminator,
                      const kelm_msg_tx_set_packet &fixed = tx{})
{
    const control_packet content{.my_discriminator = discriminator, .your_discriminator = 77};
    return set(a, discriminator, {.payload = content.encode()}, fixed);
}

inline int set_session(agent &a, std::uint32_t discriminator,
                       const kelm_msg_rx_set_session &fixed = rx{.flags = 0})
{
    return ask(a, KELM_MSG_RX_SET_SESSION,
               set_request(discriminator, fixed, failure_message(discriminator)));
}

inline int delete_packet(agent &a, std::uint32_t discriminator)
{
    return ask(a, KELM_MSG_TX_DELETE_PACKET, kelm_msg_tx_delete_packet{{discriminator}});
}

inline int delete_session(agent &a, std::uint32_t discriminator)
{
    return ask(a, KELM_MSG_RX_DELETE_SESSION, kelm_msg_rx_delete_session{{discriminator}});
}

inline int path_ready(agent &a, std::uint32_t discriminator = 0)
{
    return ask(a, KELM_MSG_TX_PATH_READY, kelm_msg_tx_path_ready{{discriminator}});
}

inline int set_interval(agent &a, std::uint16_t seconds, std::uint32_t discriminator = 0)
{
    return ask(a, KELM_MSG_SET_SESSION_STATS_INTERVAL,
               kelm_msg_set_session_stats_interval{{discriminator}, seconds, {}});
}

inline int set_debug_level(agent &a, std::uint16_t level, std::uint32_t discriminator = 0,
                           std::uint32_t flags = 0)
{
    return ask(a, KELM_MSG_SET_DEBUG_LEVEL,
               kelm_msg_set_debug_level{{discriminator}, flags, level, {}});
}

inline int mark_or_sweep(agent &a, std::uint32_t flags)
{
    return ask(a, KELM_MSG_SYNC, kelm_msg_sync{{0}, flags});
}

// The body of KELM_MSG_GET_STATS.
inline bytes stats_request(std::uint32_t discriminator, std::uint32_t flags)
{
    return to_bytes(kelm_msg_get_stats{{discriminator}, flags});
}

// Dumps, read to their end.
inline dump_result get_stats(agent &a, std::uint32_t discriminator, std::uint32_t flags)
{
    return a.dump(KELM_MSG_GET_STATS, stats_request(discriminator, flags));
}

inline dump_result sync_dump(agent &a)
{
    return a.dump(KELM_MSG_SYNC, as_bytes(kelm_msg_sync{}));
}

// The messages of one kind, as structures.
template<typename Body>
std::vector<Body> bodies(const std::vector<message> &messages, std::uint16_t type)
{
    std::vector<Body> result;
    for (const message &m : messages) {
        if (m.header.nlmsg_type == type)
            result.push_back(read_as<Body>(m.body));
    }
    return result;
}

// The statistics of one packet or session by a reply of their own, which clears nothing; of the
// agent's vrf, by a dump.
template<typename Body>
std::optional<Body> single(agent &a, std::uint32_t discriminator, std::uint16_t type,
                           std::uint32_t flags = 0)
{
    const auto found = bodies<Body>(get_stats(a, discriminator, flags).messages, type);
    return found.empty() ? std::nullopt : std::optional(found.front());
}

inline std::optional<kelm_msg_tx_stats> tx_stats(agent &a, std::uint32_t discriminator)
{
    return single<kelm_msg_tx_stats>(a, discriminator, KELM_MSG_TX_STATS);
}

inline std::optional<kelm_msg_rx_stats> rx_stats(agent &a, std::uint32_t discriminator)
{
    return single<kelm_msg_rx_stats>(a, discriminator, KELM_MSG_RX_STATS);
}

inline kelm_msg_module_stats module_stats(agent &a)
{
    return single<kelm_msg_module_stats>(a, 0, KELM_MSG_MODULE_STATS, KELM_STATS_MODULE).value();
}

// A packet for a session arrives in a namespace. False if nobody listens.
inline bool receive(world &w, net &ns, std::uint32_t discriminator)
{
    return w.deliver(ns, arriving({.your_discriminator = discriminator}));
}

inline bool receive(world &w, std::uint32_t discriminator) // in the initial one
{
    return receive(w, w.initial(), discriminator);
}

// "rx_stats 5", "module_stats", "packet_change 5", "ack -22", "done 0", ...
inline std::string name(const message &m)
{
    static const std::map<std::uint16_t, std::string> kinds = {
        {NLMSG_ERROR, "ack "},
        {NLMSG_DONE, "done "},
        {KELM_MSG_TX_STATS, "tx_stats "},
        {KELM_MSG_TX_SYNC, "tx_sync "},
        {KELM_MSG_RX_STATS, "rx_stats "},
        {KELM_MSG_RX_PACKET_CHANGE, "packet_change "},
        {KELM_MSG_RX_SYNC, "rx_sync "},
        {KELM_MSG_SESSION_FAILURE, "failure "},
    };
    const std::uint16_t type = m.header.nlmsg_type;
    if (type == KELM_MSG_MODULE_STATS)
        return "module_stats";
    return kinds.at(type) + std::to_string(read_as<std::int32_t>(m.body));
}

inline strings names(const std::vector<message> &messages)
{
    strings result;
    std::ranges::transform(messages, std::back_inserter(result), name);
    return result;
}

// An engine with one agent, for tests of the session or packet 5.
struct engine_test : testing::Test {
    engine_test()
    {
        // Not the beginning, which is a password that packets carry.
        static const bytes end_of_key(test_key.begin() + 10, test_key.end());
        the_machine().memory.secret = end_of_key;
    }

    static constexpr std::uint32_t own_disc = 5;
    static constexpr std::uint64_t detection_ticks = 900; // ticks until a session of `rx` times out
    static constexpr std::uint64_t interval_ticks = 299;  // ticks between the packets of `tx`

    // The ticks, counted from now, at which packets go out while time goes by.
    std::vector<std::uint64_t> sent_during(std::uint64_t ticks)
    {
        w.take_frames();
        const std::uint64_t start = w.tick();
        w.advance(ticks);
        std::vector<std::uint64_t> result;
        for (const frame &each : w.frames())
            result.push_back(each.tick - start);
        return result;
    }

    // The first frame that goes out meanwhile.
    frame next_frame(std::uint64_t ticks = interval_ticks)
    {
        EXPECT_FALSE(sent_during(ticks).empty());
        return w.frames().empty() ? frame{} : w.frames().front();
    }

    // Whether the session fails after so many ticks and not before.
    bool times_out_after(std::uint64_t ticks)
    {
        w.pass(ticks - 1);
        w.run_timers();
        const strings early = failures();
        w.advance(1);
        return early.empty() && failures() == strings{"failure 5"};
    }

    // What the notification group has heard since the last time.
    strings failures() { return names(listener.read_messages()); }

    world w;
    agent &a = w.open_agent(w.initial());
    agent &listener = w.open_agent(w.initial(), {.groups = notification_group});
};

} // namespace sim
