// SPDX-License-Identifier: GPL-2.0
//
// kelm-agent's state machines, transition by transition.
#include <gtest/gtest.h>

#include "kelm-agent/fsm.h"

namespace
{

using namespace kelm_agent;

constexpr std::uint8_t a = BFD_STATE_ADMIN_DOWN;
constexpr std::uint8_t d = BFD_STATE_DOWN;
constexpr std::uint8_t i = BFD_STATE_INIT;
constexpr std::uint8_t u = BFD_STATE_UP;
constexpr std::uint8_t earlier = BFD_DIAG_CTRL_TIMEOUT; // left by an earlier failure
constexpr std::uint8_t none = BFD_DIAG_NONE;
constexpr std::uint8_t signalled = BFD_DIAG_NEIGH_DOWN;

struct transition {
    std::uint8_t from;
    std::uint8_t received;
    condition to;
};

// RFC 5880 section 6.8.6.
constexpr transition peer_transitions[] = {
    {d, a, {d, earlier}},   {d, d, {i, earlier}},   {d, i, {u, none}},    {d, u, {d, earlier}},
    {i, a, {d, signalled}}, {i, d, {i, earlier}},   {i, i, {u, none}},    {i, u, {u, none}},
    {u, a, {d, signalled}}, {u, d, {d, signalled}}, {u, i, {u, earlier}}, {u, u, {u, earlier}},
    {a, a, {a, earlier}},   {a, d, {a, earlier}},   {a, i, {a, earlier}}, {a, u, {a, earlier}},
};

// RFC 7880 section 7.3.2: a reflector only ever says Up or AdminDown.
constexpr transition reflector_transitions[] = {
    {d, a, {d, earlier}}, {d, u, {u, none}},    {u, a, {d, signalled}},
    {u, u, {u, earlier}}, {u, d, {u, earlier}}, {a, u, {a, earlier}},
};

TEST(agent_fsm, packets)
{
    for (const auto &t : peer_transitions)
        EXPECT_EQ(after_packet({t.from, earlier}, t.received), t.to)
            << int{t.from} << " hears " << int{t.received};
    for (const auto &t : reflector_transitions)
        EXPECT_EQ(after_reflection({t.from, earlier}, t.received), t.to)
            << int{t.from} << " hears reflector " << int{t.received};
}

TEST(agent_fsm, silence)
{
    EXPECT_EQ(after_timeout({u, none}, BFD_DIAG_ECHO_FAIL), (condition{d, BFD_DIAG_ECHO_FAIL}));
    EXPECT_EQ(after_timeout({i, none}, BFD_DIAG_CTRL_TIMEOUT),
              (condition{d, BFD_DIAG_CTRL_TIMEOUT}));
    EXPECT_EQ(after_timeout({d, signalled}, BFD_DIAG_CTRL_TIMEOUT), (condition{d, signalled}));
    EXPECT_EQ(after_timeout(administratively_down(), BFD_DIAG_CTRL_TIMEOUT),
              administratively_down());
}

} // namespace
