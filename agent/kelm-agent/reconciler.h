// SPDX-License-Identifier: GPL-2.0
//
// Brings the sessions of one namespace and what kelm has of them together: after a connection has
// been made, and after events have been lost.
#pragma once

#include "kelm-agent/restart.h"
#include "kelm-agent/slices.h"

namespace kelm_agent
{

class reconciler
{
  public:
    enum class cause { connection, overrun };

    reconciler(event_loop &loop, const logger &log, session_set &sessions, restart &earlier,
               vrf &where)
        : loop_(loop), log_(log), sessions_(sessions), restart_(earlier), vrf_(where),
          walk_(loop, sessions)
    {
    }

    // Compares kelm's dump with what is wanted, session by session, and lets events be acted on
    // again. Others have their turn meanwhile. Then calls `done`.
    void start(cause, event_loop::callback done);
    // The connection is lost.
    void stop();
    // Since the connection was made.
    bool is_done() const { return is_done_; }
    // Overruns that were reconciled, since the start.
    std::uint64_t overruns() const { return overruns_; }

  private:
    void take(const std::vector<kelm::report> &dump);
    void compare(session_driver &);
    void finish();

    event_loop &loop_;
    const logger &log_;
    session_set &sessions_;
    restart &restart_;
    vrf &vrf_;
    cause cause_ = cause::connection;
    event_loop::callback done_;
    bool is_done_ = false;
    std::uint64_t round_ = 0;
    inventory all_;
    session_walk walk_;
    std::size_t compared_ = 0;
    std::uint64_t overruns_ = 0;
};

} // namespace kelm_agent
