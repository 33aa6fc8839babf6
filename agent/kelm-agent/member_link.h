// SPDX-License-Identifier: GPL-2.0
//
// The member link of a LAG session: packets that name no session yet are heard on the link itself.
#pragma once

#include "kelm-agent/addressing.h"
#include "kelm-agent/event_loop.h"
#include "kelm-agent/member_listener.h"
#include "libkelm/frame.h"

namespace kelm_agent
{

class member_link
{
  public:
    explicit member_link(event_loop &loop) : loop_(loop) {}

    // Calls `on_packets` whenever hear() has something to do. Throws kelm::error.
    void listen(const std::string &netns, std::uint32_t ifindex, event_loop::callback on_packets);
    void leave();

    // Leads what has come for the session to `take`, in the order in which it came.
    void
    hear(const session_config &, const addressing &,
         const std::function<void(const kelm::packet_change &, const kelm::frame_info &)> &take);

  private:
    event_loop &loop_;
    std::optional<member_listener> listener_;
    event_loop::handle on_packets_;
};

} // namespace kelm_agent
