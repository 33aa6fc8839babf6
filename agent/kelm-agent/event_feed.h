// SPDX-License-Identifier: GPL-2.0
//
// kelm's events in one namespace: read in batches, and what to do when some are lost.
#pragma once

#include "kelm-agent/event_loop.h"
#include "libkelm/client.h"

namespace kelm_agent
{

// Events are led to the listener one by one, and acted on when a batch ends. After an overrun the
// backlog, which is older than what kelm can dump now, is dropped; then a reconciliation is asked
// for, and no batch ends until it is done. Overruns that come meanwhile ask for one more, and not
// sooner than the last one took.
class event_feed
{
  public:
    struct listener {
        virtual ~listener() = default;
        virtual void on_event(const kelm::report &) = 0;
        virtual void on_batch_end() = 0;
        // To be answered with caught_up(), at any time later.
        virtual void on_overrun() = 0;
        virtual void on_failure(const std::string &why) = 0;
    };

    // A reconciliation and what led to it.
    struct episode {
        event_loop::time_point began;
        std::uint64_t overruns = 0;
        std::uint64_t dropped = 0; // events
    };

    // `client` has subscribed. Begins with a reconciliation that is under way, the caller's.
    event_feed(event_loop &, std::unique_ptr<kelm::client>, listener &);

    // Calls `then` when every event that kelm has sent before has been led to the listener.
    void read_to_end(event_loop::callback then);
    // The reconciliation is done.
    void caught_up();
    bool is_following() const { return mode_ == mode::following; }

    // The present one; between two, what has led to the next one.
    const episode &current() const { return episode_; }

  private:
    enum class mode { following, dropping, reconciling };

    void read();
    bool read_batch();
    void take(const kelm::report &);
    void take_overrun();
    void begin();
    void reach_end();

    event_loop &loop_;
    std::unique_ptr<kelm::client> client_;
    listener &listener_;
    mode mode_ = mode::reconciling;
    episode episode_;
    bool is_overrun_again_ = false;
    std::size_t rest_ = 0; // of a backlog, at most
    std::vector<event_loop::callback> at_end_;
    event_loop::time_point not_before_; // the next reconciliation
    event_loop::handle on_events_;
    event_loop::handle go_on_;
    event_loop::handle next_;
};

} // namespace kelm_agent
