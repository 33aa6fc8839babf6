// SPDX-License-Identifier: GPL-2.0
//
// An agent's connection to kelm.
#pragma once

#include <functional>

#include "libkelm/report.h"
#include "libkelm/request.h"
#include "libkelm/transport.h"

namespace kelm
{

// Not for use by several threads at once. Everything throws error when the connection fails.
//
// One client may make requests and hear events: what arrives in between is kept for the other.
// An agent with much traffic does better with two, so that a full event queue cannot cost it an
// answer.
class client
{
  public:
    // In the network namespace `netns`, see in_netns.
    explicit client(const std::string &netns = {}) : client(transport::open(netns)) {}
    explicit client(transport socket); // over a socket that is open already

    // Makes a request that kelm acknowledges. Throws refused when kelm says no. Returns what kelm
    // replied besides, which only the statistics of a single discriminator do.
    std::vector<report> execute(const request &);

    // Makes a request that kelm answers with a dump and returns the dump. It is made again when it
    // was interrupted or when datagrams were lost meanwhile; only one that clears counters is
    // not, but throws error with ENOBUFS. A record may occur twice, the later one being newer.
    std::vector<report> dump(const request &);

    // Statistics of one discriminator or of all (0), KELM_STATS_* in `flags`: execute() or dump(),
    // whichever such a request needs.
    std::vector<report> statistics(std::uint32_t discriminator, std::uint32_t flags);

    // Hears the groups of `mask` from now on (bit 0 is group 1: KELM_NLG_NUM_CONTROL).
    void subscribe(std::uint32_t mask) { socket_.set_groups(mask); }

    // The next event, waited for at most `timeout`. Before the caller polls fd() itself it must
    // have got nothing from a call with timeout 0: events may be waiting that no longer make the
    // descriptor readable.
    std::optional<report> next_event(milliseconds timeout);

    // How long kelm may be silent about a request, before that throws error with ETIMEDOUT.
    void set_answer_timeout(milliseconds timeout) { answer_timeout_ = timeout; }

    // To wait on for events, see next_event(). Stays the client's.
    int fd() const { return socket_.fd(); }
    const transport &socket() const { return socket_; }

  private:
    struct answer {
        std::vector<report> reports;
        std::optional<std::int64_t> result; // 0 or a negative error number, once it is complete
        bool lost = false;                  // datagrams were lost while it was awaited
        bool interrupted = false;           // kelm says that the dump is not consistent
    };

    answer converse(const request &, std::uint16_t flags);
    void take_answer(const message &, answer &into);
    void queue_event(report);
    void receive_events(const bytes &datagram);

    transport socket_;
    std::uint32_t sequence_;
    milliseconds answer_timeout_ = answer_timeout;
    std::deque<report> events_;
};

} // namespace kelm
