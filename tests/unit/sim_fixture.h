// SPDX-License-Identifier: GPL-2.0
//
// Tests on the simulation: its failures fail the test, and the packets and requests that most
// tests need are made here.
#pragma once

#include <arpa/inet.h>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "kelm.h"
#include "platform/sim/world.h"

namespace sim
{

class failures_fail_tests : public testing::Environment
{
  public:
    void SetUp() override
    {
        on_failure = [](const std::string &text) { ADD_FAILURE() << text; };
    }
};

inline testing::Environment *const failures =
    testing::AddGlobalTestEnvironment(new failures_fail_tests);

// What the simulation finds wrong while this runs, which does not fail the test.
inline std::vector<std::string> failures_of(const std::function<void()> &run)
{
    std::vector<std::string> texts;
    const auto previous =
        std::exchange(on_failure, [&texts](const std::string &text) { texts.push_back(text); });
    run();
    on_failure = previous;
    return texts;
}

template<class T>
std::span<const std::uint8_t> as_bytes(const T &object)
{
    return {reinterpret_cast<const std::uint8_t *>(&object), sizeof object};
}

inline void append(bytes &to, std::span<const std::uint8_t> more)
{
    to.insert(to.end(), more.begin(), more.end());
}

// The first bytes of a message's body or of a packet, as a structure.
template<class T>
T read_as(std::span<const std::uint8_t> from)
{
    T result{};
    EXPECT_GE(from.size(), sizeof result);
    std::memcpy(&result, from.data(), std::min(from.size(), sizeof result));
    return result;
}

// A control packet of a session that is up; the fields that tests vary.
struct control_packet {
    std::uint32_t my_discriminator = 77;
    std::uint32_t your_discriminator = 5;
    std::uint8_t state = BFD_STATE_UP;
    std::uint8_t flags = 0; // BFD_FLAG_*
    std::uint8_t multiplier = 3;

    [[nodiscard]] bytes encode() const
    {
        bfd_ctrl ctrl{};
        ctrl.version = BFD_VERSION;
        ctrl.state = state & 3;
        ctrl.detect_multiplier = multiplier;
        ctrl.len = sizeof ctrl;
        ctrl.my_discriminator = htonl(my_discriminator);
        ctrl.your_discriminator = htonl(your_discriminator);
        ctrl.min_tx_interval = htonl(300'000);
        ctrl.min_rx_interval = htonl(300'000);
        const auto encoded = as_bytes(ctrl);
        bytes result(encoded.begin(), encoded.end());
        result[1] = static_cast<std::uint8_t>(result[1] | flags);
        return result;
    }
};

// A packet to transmit: an IP datagram, or with a link header a whole frame.
struct outgoing {
    bytes payload = control_packet{.my_discriminator = 5, .your_discriminator = 77}.encode();
    in6_addr source = address("10.0.0.1");
    in6_addr destination = address("10.0.0.2");
    std::size_t link_len = 0;

    [[nodiscard]] bytes encode() const
    {
        const hosted::udp_arrival way{.source = source,
                                      .destination = destination,
                                      .source_port = 49152,
                                      .destination_port = 3784,
                                      .ttl = 255,
                                      .tos = 0xc0,
                                      .iif = 0,
                                      .member_ifindex = 0};
        bytes result(hosted::udp_header_room(way, link_len));
        append(result, payload);
        hosted::write_udp_headers(std::span(result).last(payload.size()), way, link_len);
        for (std::size_t i = 0; i < std::min<std::size_t>(link_len, 6); ++i)
            result[i] = static_cast<std::uint8_t>(0x20 + i); // Ethernet destination
        return result;
    }
};

// The body of KELM_MSG_TX_SET_PACKET: fixed part as the test likes, lengths and offsets filled.
inline bytes tx_set_packet(std::uint32_t discriminator, const bytes &datagram,
                           kelm_msg_tx_set_packet fixed = {})
{
    fixed.header.discriminator = discriminator;
    fixed.packet_len = static_cast<std::uint32_t>(datagram.size());
    if (fixed.latch_offset == 0)
        fixed.latch_offset = fixed.packet_len - BFD_CTRL_LEN;
    if (fixed.period == 0)
        fixed.period = 300'000;
    bytes body;
    append(body, as_bytes(fixed));
    append(body, datagram);
    return body;
}

// The body of KELM_MSG_RX_SET_SESSION, with a failure message that carries the discriminator.
inline bytes rx_set_session(std::uint32_t discriminator, kelm_msg_rx_set_session fixed = {})
{
    const kelm_msg_header failure_body{discriminator};
    const bytes failure = make_message(KELM_MSG_SESSION_FAILURE, 0, 0, as_bytes(failure_body));
    fixed.header.discriminator = discriminator;
    fixed.failure_packet_len = static_cast<std::uint32_t>(failure.size());
    if (fixed.multiplier == 0)
        fixed.multiplier = 3;
    if (fixed.period == 0)
        fixed.period = 300'000;
    bytes body;
    append(body, as_bytes(fixed));
    append(body, failure);
    return body;
}

inline datagram arriving(const control_packet &packet)
{
    datagram result;
    result.payload = packet.encode();
    return result;
}

} // namespace sim
