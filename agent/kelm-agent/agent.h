// SPDX-License-Identifier: GPL-2.0
//
// All sessions: what happens in kelm, on the clock, in the configuration and through the
// administrator is led to whom it concerns.
#pragma once

#include <deque>

#include "kelm-agent/change_feed.h"
#include "kelm-agent/loss_watch.h"
#include "kelm-agent/reconciler.h"
#include "kelm-agent/slices.h"
#include "kelm-agent/state_record.h"
#include "kelm-agent/statistics.h"
#include "libkelm/transport.h"

namespace kelm_agent
{

struct agent_options {
    std::string state_file;
    bool sole_agent = false; // nobody else's sessions may be in kelm
    vrf::opener open = [](const std::string &netns,
                          std::uint32_t groups) -> std::unique_ptr<kelm::channel> {
        return kelm::transport::begin(netns, groups);
    };
};

// How it goes between kelm and the agent in one namespace.
struct namespace_report {
    std::string netns;
    std::uint64_t connected; // 1, or 0
    std::uint64_t waiting;   // sessions with events that have not been acted on
    std::uint64_t overruns;  // of the queue of kelm's events, since the agent started
    std::uint64_t lost;      // sessions that kelm no longer had
};

class agent final : private vrf::listener, private session_driver::listener
{
  public:
    agent(event_loop &, const logger &, agent_options, const agent_config &);

    // Makes the sessions those of the configuration; what is unchanged is not touched. `done` is
    // called then, unless another configuration has come meanwhile, or the end.
    void reconfigure(const agent_config &, event_loop::callback done);

    // Throws std::out_of_range with a sentence if there is no such session, or if it is the
    // configuration that keeps it down.
    void set_admin_down(const std::string &name, bool down);

    // Tells all peers, and calls `done` when kelm has nothing of ours any more.
    void shut_down(event_loop::callback done);

    const session_set &sessions() const { return sessions_; }

    // Asks kelm for what it has counted for these sessions; `done` is called soon in any case.
    void refresh_statistics(const std::vector<std::string> &names, event_loop::callback done);
    const counters &counted(const session_driver &session) const { return statistics_.of(session); }
    std::vector<namespace_report> report_by_namespace() const;

    // Changes of state of all sessions.
    change_feed &changes() { return changes_; }

  private:
    // One namespace.
    struct place {
        place(agent &, const std::string &netns);

        vrf connection;
        reconciler reconciling;
        loss_watch watch;
        std::deque<std::uint32_t> to_act; // sessions that events are kept for
        event_loop::handle acting;
        session_walk on_gone;
        session_walk on_links_changed;
        bool have_links_changed_again = false;
    };

    void on_connected(vrf &) override;
    void on_disconnected(vrf &) override;
    void on_gone(vrf &) override;
    void on_event(vrf &, const kelm::report &) override;
    void on_batch_end(vrf &) override;
    void on_overrun(vrf &) override;
    void on_links_changed(vrf &) override;

    void on_state_change() override { record_.change_of_state(); }
    void on_change(const session_driver &changed, const change &what) override
    {
        changes_.tell(changed, what);
    }
    void on_record_change() override { record_.change(); }
    void on_suspicion(session_driver &) override;
    void on_removed(session_driver &, bool is_certain) override;

    place &place_of(const std::string &netns);
    place &place_of(const vrf &where) { return *places_.at(where.netns()); }
    bool act_on_next(place &);

    void add(const session_config &);
    void begin(session_driver &);
    void retire(const std::string &name);
    void adapt(session_driver &, const session_config *wanted);
    void add_missing(const std::shared_ptr<const agent_config> &, event_loop::callback done);
    void start(place &);
    void sweep_when_all_are_reconciled();
    void remove_all();
    void end_shut_down();
    saved_state snapshot() const;

    event_loop &loop_;
    const logger &log_;
    agent_options options_;
    change_feed changes_;
    restart restart_;
    std::map<std::string, std::unique_ptr<place>> places_; // by namespace; outlive the sessions
    session_set sessions_;
    statistics statistics_;
    state_record record_;
    std::vector<const session_driver *> gone_; // retired, to be dropped
    event_loop::handle on_idle_;
    session_walk walk_; // to a new configuration, or to the end
    event_loop::handle adding_;
    std::size_t removals_ = 0; // awaited
    event_loop::callback on_shut_down_;
    event_loop::handle shut_down_timer_;
};

} // namespace kelm_agent
