// SPDX-License-Identifier: GPL-2.0
//
// All sessions, and all that happens to them: events of kelm, of the clock, of the configuration
// and of the administrator are led to their sessions, and what these order is led to kelm.
#pragma once

#include <list>
#include <map>
#include <unordered_map>

#include "kelm-agent/history.h"
#include "kelm-agent/kelm_sync.h"
#include "kelm-agent/member_listener.h"
#include "kelm-agent/reconcile.h"
#include "kelm-agent/vrf.h"
#include "libkelm/frame.h"

namespace kelm_agent
{

struct agent_options {
    std::string state_file;
    bool sole_agent = false; // nobody else's sessions may be in kelm
};

// A session with everything around it.
struct managed_session {
    managed_session(const session_config &config, std::uint32_t discriminator, vrf &lives_in)
        : bfd(config, discriminator), port(discriminator), home(&lives_in)
    {
    }

    session bfd;
    kelm_sync port;
    vrf *home;
    history past;
    std::optional<addressing> addresses; // nothing where `obstacle` says why
    std::string obstacle;
    bool has_begun = false;                     // what an earlier run has left has been looked at
    bool is_taken_down = false;                 // by the administrator, until taken up again
    std::optional<saved_session> saved;         // by an earlier run, until it has been made use of
    std::optional<std::uint32_t> last_sequence; // heard, of an authenticated peer
    event_loop::handle alarm;                   // for the session's due()
    event_loop::handle look_again;         // for what its addressing lacks or may have got wrong
    std::optional<member_listener> member; // of a LAG session
    event_loop::handle on_member;
    event_loop::handle retry;
};

class agent
{
  public:
    agent(event_loop &, const logger &, agent_options, const agent_config &);

    // Makes the sessions those of the configuration; what is unchanged is not touched.
    void reconfigure(const agent_config &);

    // Throws std::out_of_range with a sentence if there is no such session, or if it is the
    // configuration that keeps it down.
    void set_admin_down(const std::string &name, bool down);

    // Tells all peers, and calls `done` when kelm has nothing of ours any more.
    void shut_down(std::function<void()> done);

    // By name.
    const std::map<std::string, managed_session> &sessions() const { return sessions_; }

    // What kelm has counted for these sessions, as far as it can be asked.
    std::vector<kelm::report> statistics(const std::vector<std::string> &names);

  private:
    using handler = std::function<desired_state(session &)>;
    using reason_maker = std::function<std::string(const session &)>;

    vrf &home_of(const std::string &netns);
    void add(const session_config &);
    void update(managed_session &, const session_config &);
    void retire(const std::string &name);
    void drop(std::list<managed_session>::iterator leaving);
    bool delete_from_kelm(managed_session &);

    void on_connected(vrf &);
    void on_gone(vrf &);
    void on_report(vrf &, const kelm::report &);
    void on_links_changed(vrf &);
    void on_packet(vrf &, const kelm::packet_change &);
    void on_failure(vrf &, std::uint32_t discriminator);

    void reconcile(vrf &);
    void resume(managed_session &, const inventory &);
    void choose_discriminator(managed_session &, const inventory &);
    void resynchronise(managed_session &, const inventory &);
    void delete_strangers(vrf &, const inventory &);
    bool is_leaving(std::uint32_t discriminator) const;
    bool is_unwanted(const vrf &, std::uint32_t discriminator);
    void mark();
    void sweep_when_all_are_connected();
    void look_up_addressing(managed_session &);
    void update_addressing(managed_session &);
    void look_again_later(managed_session &);
    void listen_to_member(managed_session &);
    void hear_member(managed_session &);
    void leave_members(const vrf &);
    void attend_guard(const managed_session &guarded);
    desired_state direct_guard(managed_session &guard);
    void fail_guarded(managed_session &guard, const condition &before);
    bool is_taken(managed_session &) const;

    managed_session *find(const vrf &, std::uint32_t discriminator);
    managed_session *find_by_address(const vrf &, const kelm::packet_change &,
                                     const kelm::frame_info &);

    void handle(managed_session &, const handler &, const reason_maker &);
    void carry_out(managed_session &, const desired_state &);
    void note_change(managed_session &, const condition &before, const std::string &reason);
    void set_alarm(managed_session &);
    void enter(managed_session &);
    void forget(const managed_session &);
    void change_discriminator(managed_session &, std::uint32_t discriminator);
    std::uint32_t new_discriminator() const;
    void save();

    event_loop &loop_;
    const logger &log_;
    agent_options options_;
    std::map<std::string, std::unique_ptr<vrf>> vrfs_; // by namespace
    std::map<std::string, managed_session> sessions_;
    std::unordered_map<std::uint32_t, managed_session *> by_discriminator_;
    std::multimap<kelm::bytes, managed_session *> by_peer_; // by the sender's address
    std::map<std::string, saved_session> saved_;            // of an earlier run, not yet used
    std::vector<orphan> orphans_;
    std::list<managed_session> leaving_; // have told their peers, and will be deleted
    event_loop::handle shut_down_timer_;
    event_loop::handle on_idle_;
    bool must_save_ = false;
    // The first change of a round is on record before anybody can learn of it; what else happens in
    // the round, as when many sessions share a link that fails, is recorded in one go.
    bool has_saved_ahead_ = false;
    enum class sweep { not_wanted, not_marked, marked } sweep_ = sweep::not_wanted;
};

} // namespace kelm_agent
