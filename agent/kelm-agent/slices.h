// SPDX-License-Identifier: GPL-2.0
//
// Work that would keep others waiting for too long is done in slices of a few milliseconds.
#pragma once

#include "kelm-agent/session_set.h"

namespace kelm_agent
{

// Calls `step`, soon and as long as it returns true, for as long as the handle lives; others have
// their turn between two slices. `step` may end the handle.
[[nodiscard]] event_loop::handle in_slices(event_loop &, std::function<bool()> step);

// Visits the sessions by their names, in slices. Sessions may come and go meanwhile.
class session_walk
{
  public:
    using visitor = std::function<void(session_driver &)>;

    session_walk(event_loop &loop, const session_set &sessions) : loop_(loop), sessions_(sessions)
    {
    }

    // Begins a new walk, in place of one that is under way. Calls `done` at its end.
    void start(visitor, event_loop::callback done);
    void stop() { work_ = {}; }
    bool is_under_way() const { return work_ != nullptr; }

  private:
    bool visit_next();

    event_loop &loop_;
    const session_set &sessions_;
    visitor visit_;
    event_loop::callback done_;
    std::string last_; // visited; empty: none
    event_loop::handle work_;
};

} // namespace kelm_agent
