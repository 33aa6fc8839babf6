// SPDX-License-Identifier: GPL-2.0
//
// Requests under way: which may be sent, which answer is whose, and how each of them ends. No
// socket and no clock of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "libkelm/channel.h"
#include "libkelm/error.h"
#include "libkelm/report.h"
#include "libkelm/request.h"

namespace kelm
{

// How a request ended.
template<typename Report>
struct basic_answer {
    int error_number = 0;        // 0, or a positive errno value
    bool is_refused = false;     // kelm said no; other errors leave open what kelm has done
    std::string text;            // of the error, for people
    std::vector<Report> reports; // what kelm replied besides; none after an error
};

using answer = basic_answer<report>;
using raw_answer = basic_answer<raw_report>;

// Called exactly once for each request.
using completion = std::function<void(answer)>;
using raw_completion = std::function<void(raw_answer)>;

// Requests are sent in the order in which they were submitted, except that a dump waits for the
// end of the one before it and the others overtake it: kelm runs one dump per socket. kelm answers
// in order, except that a dump continues beside the others.
//
// A dump is repeated when it was interrupted or when datagrams were lost meanwhile; only one that
// clears what it reports is not, but ends with ENOBUFS after a loss.
class request_queue
{
  public:
    // The most requests that are sent and not answered, dumps apart, and their bytes. The answers
    // fit into the smallest receive buffer that systems give (208 KiB, where the kernel counts up
    // to 1.3 KiB for each) and into what kelmd keeps for a slow reader, refusals included, which
    // repeat the whole request.
    static constexpr std::size_t window = 64;
    static constexpr std::size_t window_bytes = 32 << 10;
    // The most memory of requests that wait to be sent.
    static constexpr std::size_t waiting_limit = 32 << 20;

    // Sequence numbers count up from `first_sequence`.
    explicit request_queue(std::uint32_t first_sequence) : sequence_(first_sequence) {}

    // Throws error with ENOBUFS if too many requests wait already; `done` is not called then.
    void submit(request, raw_completion done, time_point now);

    // Whether flush() has something to send.
    bool can_send() const;
    // Sends what may be sent, as far as the channel has room. Throws what the channel throws.
    void flush(channel &);

    // Takes an answer from kelm to this port id, and drops one that comes too late. False: the
    // message is an event.
    bool take(const message &, std::uint32_t port_id, time_point now);
    // Datagrams have been lost.
    void overrun();
    // Nothing is under way any more of the answers to what was sent before overrun().
    void end_lost();
    // Ends the requests about which kelm has been silent for so long.
    void expire(time_point now, milliseconds timeout);
    // Ends all requests.
    void abandon(const error &);

    // When expire() will have something to do, if kelm remains silent.
    std::optional<time_point> deadline(milliseconds timeout) const;

    // Requests that have not ended.
    std::size_t outstanding() const;

    // A request that has ended, for the queue's owner to complete; in the order of the endings.
    struct ending {
        raw_completion done;
        raw_answer how;
    };
    std::optional<ending> next_ended();
    bool has_ended() const { return !ended_.empty(); }

  private:
    struct entry {
        entry(request, raw_completion, time_point submitted);
        std::size_t memory() const;

        request what;
        raw_completion done;
        bool is_dump;
        time_point since;            // submitted; of a dump: sent again, or heard of last
        std::uint32_t sequence = 0;  // once sent
        int attempts = 0;            // of a dump, spoilt ones
        bool has_lost = false;       // datagrams were lost while it was awaited
        bool is_interrupted = false; // kelm says that the dump is not consistent
        std::vector<raw_report> reports = {};
    };

    static bool has_room(std::size_t requests, std::size_t size, const entry &next);
    std::size_t choose(bytes &datagram, std::uint32_t port_id) const;
    void mark_sent(std::size_t count);
    void hold_back_dumps();

    void take_for_dump(const message &, time_point now);
    void end_dump(std::int32_t result, time_point now);
    void begin_again(entry dump, time_point now);

    entry take_waiting();
    entry take_sent();
    entry take_dump(time_point now);
    void end(entry, raw_answer);
    void end_with_result(entry, std::int32_t result);
    void end_unanswered(entry);
    time_point due(const entry &, milliseconds timeout) const;

    std::uint32_t sequence_; // of the request sent last
    std::deque<entry> waiting_;
    std::deque<entry> waiting_dumps_; // for `dump_` to end
    std::size_t waiting_bytes_ = 0;   // of both
    std::deque<entry> sent_;
    std::size_t sent_bytes_ = 0;
    std::optional<entry> dump_;             // sent
    time_point last_answer_ = time_point(); // to anything but a dump
    std::deque<ending> ended_;
};

} // namespace kelm
