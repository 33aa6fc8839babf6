// SPDX-License-Identifier: GPL-2.0
//
// kelm's events in one namespace: reads them in batches, and recovers when some are lost.
#pragma once

#include "kelm-agent/event_loop.h"
#include "libkelm/client.h"

namespace kelm_agent
{

// Passes events to the listener one by one, and tells it when a batch ends. After an overrun it
// drops the backlog, which is older than what kelm can dump now, and asks for a reconciliation; no
// batch ends until that is done. Overruns during a reconciliation lead to one more, no sooner than
// after the time that the last one took.
class event_feed
{
  public:
    struct listener {
        virtual ~listener() = default;
        virtual void on_event(const kelm::report &) = 0;
        virtual void on_batch_end() = 0;
        // The listener reconciles, and then calls caught_up().
        virtual void on_overrun() = 0;
        virtual void on_failure(const std::string &why) = 0;
    };

    // A reconciliation and its cause.
    struct episode {
        event_loop::time_point began;
        std::uint64_t overruns = 0;
        std::uint64_t dropped = 0; // events
    };

    // `client` has subscribed. The feed starts in the middle of a reconciliation, the caller's.
    event_feed(event_loop &, std::unique_ptr<kelm::client>, listener &);

    // Calls `then` when every event that kelm has sent so far has been passed to the listener.
    void read_to_end(event_loop::callback then);
    // The reconciliation is done.
    void caught_up();
    bool is_following() const { return mode_ == mode::following; }

    // The current episode; between two, the one that is about to begin.
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
