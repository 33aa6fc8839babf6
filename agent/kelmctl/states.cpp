// SPDX-License-Identifier: GPL-2.0
#include "kelmctl/states.h"

namespace kelmctl
{

session_states read_states(context &ctx)
{
    session_states states;
    if (ctx.opts().all_vrfs)
        return states;
    for (auto &report : ctx.client().dump(kelm::sync(0))) {
        if (const auto *sync = std::get_if<kelm_msg_rx_sync>(&report))
            states[sync->header.discriminator].timer_active = sync->timer_active != 0;
        else if (auto *change = std::get_if<kelm::packet_change>(&report))
            states[change->discriminator].last_frame = std::move(*change);
    }
    return states;
}

} // namespace kelmctl
