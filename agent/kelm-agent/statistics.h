// SPDX-License-Identifier: GPL-2.0
//
// What kelm has counted for the sessions, asked for when somebody wants to know.
#pragma once

#include <unordered_map>

#include "kelm-agent/session_set.h"

namespace kelm_agent
{

// As kelm has told last.
struct counters {
    std::optional<kelm_msg_rx_stats> received;
    std::optional<kelm_msg_tx_stats> sent;
};

class statistics
{
  public:
    // `on_unknown` is called when kelm says that it has no such session.
    statistics(event_loop &loop, const session_set &sessions,
               std::function<void(session_driver &)> on_unknown)
        : loop_(loop), sessions_(sessions), on_unknown_(std::move(on_unknown))
    {
    }

    // Calls `done` when kelm has answered for these sessions, and after a short time in any case;
    // what was told earlier counts then. One dump in each namespace answers all who ask meanwhile.
    void refresh(const std::vector<const session_driver *> &, event_loop::callback done);

    // Of a session that kelm has said nothing about, nothing.
    const counters &of(const session_driver &) const;
    void forget(std::uint32_t discriminator) { counted_.erase(discriminator); }
    // Nothing that is under way there will be answered.
    void on_disconnected(const vrf &lost);

  private:
    struct inquiry; // somebody who waits

    void ask(vrf &, std::uint32_t discriminator, const std::shared_ptr<inquiry> &);
    void take(const vrf &, const std::vector<kelm::report> &);

    event_loop &loop_;
    const session_set &sessions_;
    std::function<void(session_driver &)> on_unknown_;
    std::unordered_map<std::uint32_t, counters> counted_;
    std::map<const vrf *, std::vector<std::shared_ptr<inquiry>>> dumping_; // and who waits for it
};

} // namespace kelm_agent
