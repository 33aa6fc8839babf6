// SPDX-License-Identifier: GPL-2.0
//
// kelm-agent's state machines, transition by transition.
#include <gtest/gtest.h>

#include "kelm-agent/fsm.h"

namespace
{

using namespace kelm_agent;

constexpr std::uint8_t A = BFD_STATE_ADMIN_DOWN;
constexpr std::uint8_t D = BFD_STATE_DOWN;
constexpr std::uint8_t I = BFD_STATE_INIT;
constexpr std::uint8_t U = BFD_STATE_UP;
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
    {D, A, {D, earlier}},   {D, D, {I, earlier}},   {D, I, {U, none}},    {D, U, {D, earlier}},
    {I, A, {D, signalled}}, {I, D, {I, earlier}},   {I, I, {U, none}},    {I, U, {U, none}},
    {U, A, {D, signalled}}, {U, D, {D, signalled}}, {U, I, {U, earlier}}, {U, U, {U, earlier}},
    {A, A, {A, earlier}},   {A, D, {A, earlier}},   {A, I, {A, earlier}}, {A, U, {A, earlier}},
};

// RFC 7880 section 7.3.2: a reflector only ever says Up or AdminDown.
constexpr transition reflector_transitions[] = {
    {D, A, {D, earlier}}, {D, U, {U, none}},    {U, A, {D, signalled}},
    {U, U, {U, earlier}}, {U, D, {U, earlier}}, {A, U, {A, earlier}},
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
    EXPECT_EQ(after_timeout({U, none}, BFD_DIAG_ECHO_FAIL), (condition{D, BFD_DIAG_ECHO_FAIL}));
    EXPECT_EQ(after_timeout({I, none}, BFD_DIAG_CTRL_TIMEOUT),
              (condition{D, BFD_DIAG_CTRL_TIMEOUT}));
    EXPECT_EQ(after_timeout({D, signalled}, BFD_DIAG_CTRL_TIMEOUT), (condition{D, signalled}));
    EXPECT_EQ(after_timeout(administratively_down(), BFD_DIAG_CTRL_TIMEOUT),
              administratively_down());
}

} // namespace
