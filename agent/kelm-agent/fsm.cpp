// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/fsm.h"

namespace kelm_agent
{

namespace
{

constexpr condition up = {BFD_STATE_UP, BFD_DIAG_NONE};
constexpr condition signalled_down = {BFD_STATE_DOWN, BFD_DIAG_NEIGH_DOWN};

// The state changes, the reason of the last failure stays.
condition init(condition now)
{
    return {BFD_STATE_INIT, now.diag};
}

} // namespace

condition after_packet(condition now, std::uint8_t received)
{
    switch (now.state) {
    case BFD_STATE_DOWN:
        if (received == BFD_STATE_DOWN)
            return init(now);
        return received == BFD_STATE_INIT ? up : now;
    case BFD_STATE_INIT:
        if (received == BFD_STATE_ADMIN_DOWN)
            return signalled_down;
        return received == BFD_STATE_DOWN ? now : up;
    case BFD_STATE_UP:
        return received == BFD_STATE_DOWN || received == BFD_STATE_ADMIN_DOWN ? signalled_down
                                                                              : now;
    default: // packets mean nothing to a session that is administratively down
        return now;
    }
}

condition after_reflection(condition now, std::uint8_t received)
{
    if (now.state == BFD_STATE_DOWN && received == BFD_STATE_UP)
        return up;
    if (now.state == BFD_STATE_UP && received == BFD_STATE_ADMIN_DOWN)
        return signalled_down;
    return now;
}

condition after_timeout(condition now, std::uint8_t diag)
{
    if (now.state == BFD_STATE_INIT || now.state == BFD_STATE_UP)
        return {BFD_STATE_DOWN, diag};
    return now;
}

condition administratively_down()
{
    return {BFD_STATE_ADMIN_DOWN, BFD_DIAG_ADMIN_DOWN};
}

condition administratively_enabled()
{
    return {BFD_STATE_DOWN, BFD_DIAG_NONE};
}

} // namespace kelm_agent
