// SPDX-License-Identifier: GPL-2.0
//
// Notices what kelm has lost without saying so, as when another program has deleted it, and has it
// made again.
#pragma once

#include <set>

#include "kelm-agent/slices.h"

namespace kelm_agent
{

class loss_watch
{
  public:
    loss_watch(event_loop &loop, const logger &log, session_set &sessions, vrf &watched)
        : loop_(loop), log_(log), sessions_(sessions), vrf_(watched), walk_(loop, sessions)
    {
    }

    // Looks from now on, every few seconds.
    void start();
    void stop();
    // Looks at one session at once.
    void suspect(const session_driver &);

    // Sessions, since the start.
    std::uint64_t lost() const { return lost_; }

  private:
    void look_later(std::chrono::microseconds);
    void look();
    void judge(const std::shared_ptr<const inventory> &, std::uint64_t round);
    void judge(std::uint32_t discriminator, const kelm_entry &, std::uint64_t round);
    void report(const std::vector<std::string> &lost, bool is_all);

    event_loop &loop_;
    const logger &log_;
    session_set &sessions_;
    vrf &vrf_;
    std::set<std::uint32_t> suspected_;
    std::uint64_t lost_ = 0;
    event_loop::handle timer_;
    session_walk walk_;
};

} // namespace kelm_agent
