// SPDX-License-Identifier: GPL-2.0
//
// One session with everything around it: what happens goes into its state machine, what differs
// then goes to kelm. The driver alone knows what is wrong with the session and why it is down.
#pragma once

#include <optional>

#include "kelm-agent/event_loop.h"
#include "kelm-agent/history.h"
#include "kelm-agent/inbox.h"
#include "kelm-agent/kelm_sync.h"
#include "kelm-agent/log.h"
#include "kelm-agent/member_link.h"
#include "kelm-agent/reconcile.h"
#include "kelm-agent/state_file.h"
#include "libkelm/frame.h"

namespace kelm_agent
{

class session_driver final : private kelm_sync::listener
{
  public:
    struct listener {
        virtual ~listener() = default;
        // Before kelm, and with it the peer, or the log learns of it.
        virtual void on_state_change() = 0;
        // After that: what the history has as its last.
        virtual void on_change(const session_driver &, const change &) = 0;
        // Something changed that the record of the session holds.
        virtual void on_record_change() = 0;
        // kelm may have lost the session.
        virtual void on_suspicion(session_driver &) = 0;
        // After remove(): kelm has nothing of the session any more, if that is certain.
        virtual void on_removed(session_driver &, bool is_certain) = 0;
    };

    session_driver(event_loop &, const logger &, listener &, vrf &, session_config,
                   std::uint32_t discriminator);
    session_driver(const session_driver &) = delete;
    session_driver &operator=(const session_driver &) = delete;

    // Events of kelm are kept, those that say the same only once, until act().
    void keep(const kelm::packet_change &, const kelm::frame_info &);
    void keep(const kelm::session_failure &);
    bool has_kept() const { return !inbox_.is_empty(); }
    void act();

    // Starts the session: nothing of it is in kelm.
    void begin();
    // What an earlier run of the agent has put on record, and what it has left in kelm.
    void expect(saved_session saved) { saved_ = std::move(saved); }
    bool is_expected() const { return saved_.has_value(); }
    void adopt(const kelm_entry &);
    bool has_begun() const { return has_begun_; }

    // The connection to kelm was made again.
    void reconnect(const kelm_entry &);
    // Events were lost before the dump of this round was made.
    void catch_up(const kelm_entry &, std::uint64_t round);
    // Whether kelm lacks what it should have, or is silent about a failure; such is mended. A lost
    // session is made again without a change of state: whether the peer is still there, the
    // detection timer will tell.
    bool mend(const kelm_entry &, std::uint64_t round);
    void on_kelm_gone();
    void on_disconnected();

    void reconfigure(session_config);
    void set_admin_down(bool down);
    // Tells the peer; returns how long it is to hear it.
    std::chrono::microseconds stop();
    // Deletes it from kelm, and says so when that is done, or cannot be done.
    void remove();
    // The one, and then the other.
    void retire();

    // Only before the session has begun, or when kelm has nothing of it.
    void set_discriminator(std::uint32_t);

    // Looks up what the configuration names. The second form tells kelm of what has changed.
    void look_up_addressing();
    void update_addressing();

    // Its echo session, if it has one; both ways.
    static void pair(session_driver &guarded, session_driver &guard);
    void unpair();
    bool is_guard() const { return guarded_ != nullptr; }
    // An echo session runs while the session that it guards is Up.
    void update_echo();

    const session &bfd() const { return bfd_; }
    const session_config &config() const { return bfd_.config(); }
    const history &past() const { return history_; }
    vrf &where() const { return vrf_; }
    const std::optional<addressing> &addresses() const { return addressing_; }
    bool is_taken_down() const { return is_taken_down_; }
    // What keeps the session from working; empty: nothing.
    std::string problem() const;
    // Whether kelm has had no request for it since that round began, see vrf::round().
    bool is_settled_since(std::uint64_t round) const { return sync_->is_settled_since(round); }
    saved_session record() const;

  private:
    using event = std::function<desired_state(session &)>;
    using reason_maker = std::function<std::string(const session &)>;
    enum class stage { running, leaving, deleting };

    void on_settled() override;
    void on_refused(const kelm::refused &) override;
    void on_missing(const std::string &what) override;

    void handle(const event &, const reason_maker &);
    desired_state advance(const event &, const reason_maker &);
    void finish(const desired_state &);
    void apply(const desired_state &);
    void add_change(const condition &before, const std::string &reason);
    void tell_change(const condition &before, const std::string &reason);
    void set_timer();
    void look_again_later();
    void listen_to_member();
    void hear_member();
    void take(const kelm::packet_change &, const kelm::frame_info &);
    bool is_news(const kelm::packet_change &, const kelm::frame_info &);
    desired_state run_echo();
    void fail_guarded(const condition &before);
    bool is_missing(const kelm_entry &) const;
    bool is_silent(const kelm_entry &) const;
    void delete_all();

    event_loop &loop_;
    const logger &log_;
    listener &listener_;
    vrf &vrf_;
    session bfd_;
    std::optional<kelm_sync> sync_; // always one
    history history_;
    inbox inbox_;

    std::optional<addressing> addressing_; // nothing where addressing_problem_ says why
    std::string addressing_problem_;
    std::string refusal_; // of kelm
    stage stage_ = stage::running;
    bool has_begun_ = false;
    bool is_taken_down_ = false;         // by the administrator, until taken up again
    std::optional<saved_session> saved_; // by an earlier run, until it has been made use of

    std::optional<std::uint32_t> last_sequence_; // heard, of an authenticated peer
    kelm::bytes last_passed_up_;                 // the beginning of that packet

    session_driver *guard_ = nullptr;
    session_driver *guarded_ = nullptr;

    std::optional<steady_time> timer_due_;
    event_loop::handle timer_;      // for the session's due()
    event_loop::handle look_again_; // for what its addressing lacks or may have got wrong
    event_loop::handle retry_;
    member_link member_; // of a LAG session
};

} // namespace kelm_agent
