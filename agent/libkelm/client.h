// SPDX-License-Identifier: GPL-2.0
//
// An agent's connection to kelm.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "libkelm/channel.h"
#include "libkelm/report.h"
#include "libkelm/request.h"
#include "libkelm/request_queue.h"

namespace kelm
{

// Not for use by several threads at once. Everything throws error when the connection fails; there
// is no use for the client then but to destroy it.
//
// One client may make requests and hear events: what arrives in between is kept for the other.
// An agent with much traffic does better with two, so that a full event queue cannot cost it an
// answer.
//
// Requests are made in two ways. execute() and its kin wait for the answer. submit() never waits:
// up to request_queue::window requests are under way at a time, progress() moves them on, and each
// of them is completed exactly once, whatever happens. In an event loop:
//
//     poll fd() for poll_events(), until deadline() at the latest; then progress()
//
// The functions with raw in their names leave reports as they came, for the C interface.
class client
{
  public:
    // In the network namespace `netns`, see in_netns.
    explicit client(const std::string &netns = {});
    explicit client(std::unique_ptr<channel>);
    // Completes what is outstanding with ECANCELED. What completions throw is lost then.
    ~client();
    client(const client &) = delete;
    client &operator=(const client &) = delete;

    // Queues a request, an answer to which kelm acknowledges or dumps. `done` is called by
    // progress(), or by another function that waits, never from within submit(); it may submit
    // requests but not destroy the client. Throws error with ENOBUFS if too much is queued already
    // (request_queue::waiting_limit). The answer's error number is
    //
    //   what kelm refused the request with (is_refused);
    //   ETIMEDOUT     kelm has been silent for too long, see set_answer_timeout();
    //   ENOBUFS       the answer was lost because events arrive faster than they are read;
    //   ECANCELED     the client was destroyed; or
    //   what the connection failed with.
    void submit(request, completion done);
    void submit_raw(request, raw_completion done);

    // Sends and receives what can be without waiting, calls the completions of what has ended, and
    // keeps events for next_event(). What a completion throws comes through; the others follow
    // with the next call. If the connection fails, completes everything outstanding before it
    // throws.
    void progress();

    // What to poll fd() for: POLLIN, and POLLOUT while there is something to send.
    short poll_events() const;
    // When progress() has to be called at the latest, for requests that time out.
    std::optional<time_point> deadline() const;
    // Requests that are not completed.
    std::size_t outstanding() const { return queue_.outstanding(); }

    // Makes a request and waits until kelm has acknowledged it or has dumped all of its answer.
    // Returns what kelm replied; only statistics and the sync dump have replies. A record may occur
    // twice in a dump, the later one being newer; but with KELM_STATS_CLEAR the first one was
    // cleared as it was read, so that counters have to be added up and the rest is to be taken
    // from the first. Throws refused when kelm says no.
    std::vector<report> execute(const request &);
    std::vector<raw_report> execute_raw(const request &);

    // The same, where the request is one that kelm answers with a dump.
    std::vector<report> dump(const request &req) { return execute(req); }

    // Statistics of one discriminator or of all (0), KELM_STATS_* in `flags`.
    std::vector<report> statistics(std::uint32_t discriminator, std::uint32_t flags)
    {
        return execute(get_stats(discriminator, flags));
    }

    // Hears the groups of `mask` from now on (bit 0 is group 1: KELM_NLG_NUM_CONTROL).
    void subscribe(std::uint32_t mask) { channel_->set_groups(mask); }

    // The next event, waited for at most `timeout`. Before the caller polls fd() itself it must
    // have got nothing from a call with timeout 0: events may be waiting that no longer make the
    // descriptor readable.
    std::optional<report> next_event(milliseconds timeout);
    std::optional<raw_report> next_raw_event(milliseconds timeout);

    // How long kelm may be silent about a request, before that ends with ETIMEDOUT. Answers to
    // earlier requests are no silence.
    void set_answer_timeout(milliseconds timeout) { answer_timeout_ = timeout; }

    // Stays the client's.
    int fd() const { return channel_->fd(); }
    const channel &socket() const { return *channel_; }

  private:
    void exchange();
    bool receive_some();
    void take(byte_view datagram);
    bool is_time_up(bool has_read_all);
    void complete();
    void wait(time_point until);
    void queue_event(raw_report);

    std::unique_ptr<channel> channel_;
    request_queue queue_;
    milliseconds answer_timeout_ = answer_timeout;
    std::deque<raw_report> events_;
    bytes datagram_;                // received last
    std::size_t overdue_bytes_ = 0; // received since deadline()
    bool is_closing_ = false;
};

} // namespace kelm
