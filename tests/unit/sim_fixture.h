// SPDX-License-Identifier: GPL-2.0
//
// Tests on the simulation: its failures fail the test, and the datagrams that most tests need are
// made here.
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
#include "platform/module.h"
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

template<typename T>
bytes to_bytes(const T &object)
{
    const auto encoded = as_bytes(object);
    return {encoded.begin(), encoded.end()};
}

// While it lives, kelm is in strict mode.
class strict_mode
{
  public:
    strict_mode() { kelm_strict = true; }
    ~strict_mode() { kelm_strict = false; }
    strict_mode(const strict_mode &) = delete;
    strict_mode &operator=(const strict_mode &) = delete;
};

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
        bytes result = to_bytes(ctrl);
        result[1] = static_cast<std::uint8_t>(result[1] | flags);
        return result;
    }
};

inline datagram arriving(const control_packet &packet)
{
    datagram result;
    result.payload = packet.encode();
    return result;
}

} // namespace sim
