// SPDX-License-Identifier: GPL-2.0
#include "engine_fixture.h"

namespace sim
{

namespace
{

// The messages of the next datagram that answers the last request; other datagrams are dropped.
std::vector<message> reply(agent &a)
{
    while (const std::optional<bytes> datagram = a.read()) {
        std::vector<message> messages = parse_messages(*datagram);
        if (!messages.empty() && messages.front().header.nlmsg_seq == a.last_seq())
            return messages;
    }
    return {};
}

// What a statistics request for one discriminator is answered with.
template<class Body>
std::optional<Body> single(agent &a, std::uint32_t discriminator, std::uint16_t type)
{
    const int result = ask(a, KELM_MSG_GET_STATS, stats_request(discriminator, 0));
    if (result == -ENOENT)
        return std::nullopt;
    EXPECT_EQ(result, 0);
    const std::vector<Body> found = bodies<Body>(reply(a), type);
    return found.empty() ? std::nullopt : std::optional(found.front());
}

int error_of(const message &m)
{
    return read_as<int>(m.body);
}

} // namespace

int ask(agent &a, std::uint16_t type, std::span<const std::uint8_t> body)
{
    return a.request(type, body).value_or(UNANSWERED);
}

int set_packet(agent &a, std::uint32_t discriminator, kelm_msg_tx_set_packet fixed)
{
    if (fixed.latch_period == 0)
        fixed.latch_period = 1'000'000;
    const control_packet content{.my_discriminator = discriminator, .your_discriminator = 77};
    return ask(a, KELM_MSG_TX_SET_PACKET,
               tx_set_packet(discriminator, outgoing{.payload = content.encode()}.encode(), fixed));
}

int set_session(agent &a, std::uint32_t discriminator, const kelm_msg_rx_set_session &fixed)
{
    return ask(a, KELM_MSG_RX_SET_SESSION, rx_set_session(discriminator, fixed));
}

int delete_packet(agent &a, std::uint32_t discriminator)
{
    return ask(a, KELM_MSG_TX_DELETE_PACKET, kelm_msg_tx_delete_packet{{discriminator}});
}

int delete_session(agent &a, std::uint32_t discriminator)
{
    return ask(a, KELM_MSG_RX_DELETE_SESSION, kelm_msg_rx_delete_session{{discriminator}});
}

int path_ready(agent &a, std::uint32_t discriminator)
{
    return ask(a, KELM_MSG_TX_PATH_READY, kelm_msg_tx_path_ready{{discriminator}});
}

int set_interval(agent &a, std::uint16_t seconds, std::uint32_t discriminator)
{
    return ask(a, KELM_MSG_SET_SESSION_STATS_INTERVAL,
               kelm_msg_set_session_stats_interval{{discriminator}, seconds, {}});
}

int set_debug_level(agent &a, std::uint16_t level, std::uint32_t discriminator, std::uint32_t flags)
{
    return ask(a, KELM_MSG_SET_DEBUG_LEVEL,
               kelm_msg_set_debug_level{{discriminator}, flags, level, {}});
}

int mark_or_sweep(agent &a, std::uint32_t flags)
{
    return ask(a, KELM_MSG_SYNC, kelm_msg_sync{{0}, flags});
}

bytes stats_request(std::uint32_t discriminator, std::uint32_t flags)
{
    const kelm_msg_get_stats body{{discriminator}, flags};
    const auto encoded = as_bytes(body);
    return {encoded.begin(), encoded.end()};
}

dump_result get_stats(agent &a, std::uint32_t discriminator, std::uint32_t flags)
{
    return a.dump(KELM_MSG_GET_STATS, stats_request(discriminator, flags));
}

dump_result sync_dump(agent &a)
{
    const kelm_msg_sync body{};
    return a.dump(KELM_MSG_SYNC, as_bytes(body));
}

std::optional<kelm_msg_tx_stats> tx_stats(agent &a, std::uint32_t discriminator)
{
    return single<kelm_msg_tx_stats>(a, discriminator, KELM_MSG_TX_STATS);
}

std::optional<kelm_msg_rx_stats> rx_stats(agent &a, std::uint32_t discriminator)
{
    return single<kelm_msg_rx_stats>(a, discriminator, KELM_MSG_RX_STATS);
}

kelm_msg_module_stats module_stats(agent &a)
{
    const auto found = bodies<kelm_msg_module_stats>(get_stats(a, 0, KELM_STATS_MODULE).messages,
                                                     KELM_MSG_MODULE_STATS);
    EXPECT_EQ(found.size(), 1U);
    return found.empty() ? kelm_msg_module_stats{} : found.front();
}

bool receive(world &w, net &ns, std::uint32_t discriminator)
{
    return w.deliver(ns, arriving({.your_discriminator = discriminator}));
}

bool receive(world &w, std::uint32_t discriminator)
{
    return receive(w, w.initial(), discriminator);
}

std::string name(const message &m)
{
    const auto discriminator = [&m] {
        return std::to_string(read_as<kelm_msg_header>(m.body).discriminator);
    };
    switch (m.header.nlmsg_type) {
    case NLMSG_ERROR:
        return "ack " + std::to_string(error_of(m));
    case NLMSG_DONE:
        return "done " + std::to_string(error_of(m));
    case NLMSG_OVERRUN:
        return "overrun";
    case KELM_MSG_TX_STATS:
        return "tx_stats " + discriminator();
    case KELM_MSG_TX_SYNC:
        return "tx_sync " + discriminator();
    case KELM_MSG_RX_STATS:
        return "rx_stats " + discriminator();
    case KELM_MSG_RX_PACKET_CHANGE:
        return "packet_change " + discriminator();
    case KELM_MSG_RX_SYNC:
        return "rx_sync " + discriminator();
    case KELM_MSG_SESSION_FAILURE:
        return "failure " + discriminator();
    case KELM_MSG_MODULE_STATS:
        return "module_stats";
    default:
        return "type " + std::to_string(m.header.nlmsg_type);
    }
}

std::vector<std::string> names(const std::vector<message> &messages)
{
    std::vector<std::string> result;
    for (const message &m : messages)
        result.push_back(name(m));
    return result;
}

} // namespace sim
