// SPDX-License-Identifier: GPL-2.0
#include "libkelm/request_queue.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <linux/netlink.h>
#include <utility>

namespace kelm
{

namespace
{

constexpr int dump_attempts = 5;
constexpr std::int32_t max_errno = 4095; // the kernel's

// KELM_STATS_*; none of another request.
std::uint32_t statistics_flags(const request &req)
{
    const auto body = read_as<kelm_msg_get_stats>(req.body);
    return req.type == KELM_MSG_GET_STATS && body ? body->flags : 0;
}

// What only answers consist of, besides netlink's own messages.
bool is_reply_type(std::uint16_t type)
{
    switch (type) {
    case KELM_MSG_TX_STATS:
    case KELM_MSG_TX_SYNC:
    case KELM_MSG_RX_STATS:
    case KELM_MSG_RX_PACKET_CHANGE:
    case KELM_MSG_RX_SYNC:
    case KELM_MSG_MODULE_STATS:
        return true;
    default:
        return type < NLMSG_MIN_TYPE;
    }
}

raw_answer failure(int number, const std::string &text)
{
    return {.error_number = number, .is_refused = false, .text = text, .reports = {}};
}

constexpr char lost_text[] =
    "kelm's answer was lost: notifications arrive faster than they are read";

} // namespace

request_queue::entry::entry(request asked, raw_completion call, time_point submitted)
    : what(std::move(asked)), done(std::move(call)), is_dump(starts_dump(what)), since(submitted)
{
}

std::size_t request_queue::entry::memory() const
{
    return sizeof *this + what.body.size();
}

void request_queue::submit(request what, raw_completion done, time_point now)
{
    entry added(std::move(what), std::move(done), now);
    if (waiting_bytes_ + added.memory() > waiting_limit)
        throw error(ENOBUFS, "too many requests are waiting for kelm");
    waiting_bytes_ += added.memory();
    waiting_.push_back(std::move(added));
    hold_back_dumps();
}

// Sending

bool request_queue::has_room(std::size_t requests, std::size_t size, const entry &next)
{
    return requests == 0 || (requests < window && size + next.what.body.size() <= window_bytes);
}

bool request_queue::can_send() const
{
    return !waiting_.empty() &&
           (waiting_.front().is_dump || has_room(sent_.size(), sent_bytes_, waiting_.front()));
}

void request_queue::flush(channel &to)
{
    bytes datagram;
    while (can_send()) {
        const std::size_t count = choose(datagram, to.port_id());
        if (!to.send(datagram))
            return;
        mark_sent(count);
    }
}

// Puts as many requests as may be sent into one datagram and returns their number.
std::size_t request_queue::choose(bytes &datagram, std::uint32_t port_id) const
{
    datagram.clear();
    std::uint32_t count = 0;
    std::size_t requests = sent_.size();
    std::size_t total = sent_bytes_;
    bool dump_runs = dump_.has_value();
    for (const entry &next : waiting_) {
        if (next.is_dump ? dump_runs : !has_room(requests, total, next))
            break;
        if (next.is_dump) {
            dump_runs = true;
        } else {
            ++requests;
            total += next.what.body.size();
        }
        ++count;
        const bytes message =
            encode(next.what, next.is_dump ? 0 : NLM_F_ACK, sequence_ + count, port_id);
        datagram.insert(datagram.end(), message.begin(), message.end());
    }
    return count;
}

void request_queue::mark_sent(std::size_t count)
{
    for (; count > 0; --count) {
        entry next = take_waiting();
        next.sequence = ++sequence_;
        if (next.is_dump) {
            dump_ = std::move(next);
        } else {
            sent_bytes_ += next.what.body.size();
            sent_.push_back(std::move(next));
        }
    }
    hold_back_dumps();
}

// While a dump runs, no other is at the front.
void request_queue::hold_back_dumps()
{
    while (dump_ && !waiting_.empty() && waiting_.front().is_dump) {
        waiting_dumps_.push_back(std::move(waiting_.front()));
        waiting_.pop_front();
    }
}

// Answers

bool request_queue::take(const message &msg, std::uint32_t port_id, time_point now)
{
    const nlmsghdr &header = msg.header;
    if (header.nlmsg_pid != port_id)
        return false;
    if (dump_ && header.nlmsg_seq == dump_->sequence) {
        take_for_dump(msg, now);
        return true;
    }
    const auto asked = std::ranges::find(sent_, header.nlmsg_seq, &entry::sequence);
    if (asked == sent_.end())
        return is_reply_type(header.nlmsg_type);
    last_answer_ = now;
    while (sent_.front().sequence != header.nlmsg_seq) // kelm answers in order
        end(take_sent(), failure(ENOBUFS, lost_text));
    if (header.nlmsg_type == NLMSG_ERROR)
        end_with_result(take_sent(), read_as<std::int32_t>(msg.body).value_or(0));
    else
        sent_.front().reports.push_back(check_report(msg));
    return true;
}

void request_queue::take_for_dump(const message &msg, time_point now)
{
    dump_->since = now;
    if ((msg.header.nlmsg_flags & NLM_F_DUMP_INTR) != 0)
        dump_->is_interrupted = true;
    // Both begin with 0 or a negative error number; NLMSG_DONE may come without.
    if (msg.header.nlmsg_type == NLMSG_ERROR || msg.header.nlmsg_type == NLMSG_DONE)
        end_dump(read_as<std::int32_t>(msg.body).value_or(0), now);
    else
        dump_->reports.push_back(check_report(msg));
}

void request_queue::end_dump(int result, time_point now)
{
    entry dump = take_dump(now);
    const std::uint32_t flags = statistics_flags(dump.what);
    const bool clears = (flags & KELM_STATS_CLEAR) != 0;
    const bool is_spoilt =
        (dump.has_lost && (flags & KELM_STATS_NO_REPORT) == 0) || (dump.is_interrupted && !clears);
    if (result < 0 || !is_spoilt) {
        end_with_result(std::move(dump), result);
    } else if (clears) {
        end(std::move(dump),
            failure(ENOBUFS, "notifications arrive faster than they are read: statistics that are "
                             "now cleared may be lost"));
    } else if (dump.attempts + 1 == dump_attempts) {
        end(std::move(dump), failure(ENOBUFS, "the dump failed " + std::to_string(dump_attempts) +
                                                  " times: notifications arrive faster than they "
                                                  "are read"));
    } else {
        begin_again(std::move(dump), now);
    }
}

void request_queue::begin_again(entry dump, time_point now)
{
    entry again(std::move(dump.what), std::move(dump.done), now);
    again.attempts = dump.attempts + 1;
    waiting_bytes_ += again.memory();
    waiting_.push_front(std::move(again));
}

void request_queue::overrun()
{
    for (entry &asked : sent_)
        asked.has_lost = true;
    if (dump_)
        dump_->has_lost = true;
}

void request_queue::end_lost()
{
    while (!sent_.empty() && sent_.front().has_lost)
        end(take_sent(), failure(ENOBUFS, lost_text));
}

// Time

time_point request_queue::due(const entry &asked, milliseconds timeout) const
{
    return std::max(asked.since, last_answer_) + timeout;
}

std::optional<time_point> request_queue::deadline(milliseconds timeout) const
{
    std::optional<time_point> first;
    const auto consider = [&first](time_point due) { first = std::min(first.value_or(due), due); };
    if (!sent_.empty())
        consider(due(sent_.front(), timeout));
    if (!waiting_.empty())
        consider(due(waiting_.front(), timeout));
    if (dump_)
        consider(dump_->since + timeout);
    return first;
}

void request_queue::expire(time_point now, milliseconds timeout)
{
    while (!sent_.empty() && due(sent_.front(), timeout) <= now)
        end_unanswered(take_sent());
    while (!waiting_.empty() && due(waiting_.front(), timeout) <= now)
        end_unanswered(take_waiting());
    if (dump_ && dump_->since + timeout <= now)
        end_unanswered(take_dump(now));
}

// Endings

void request_queue::abandon(const error &problem)
{
    const raw_answer failed = failure(problem.number(), problem.what());
    while (!sent_.empty())
        end(take_sent(), failed);
    if (dump_)
        end(take_dump({}), failed);
    std::ranges::move(std::exchange(waiting_dumps_, {}), std::back_inserter(waiting_));
    while (!waiting_.empty())
        end(take_waiting(), failed);
}

request_queue::entry request_queue::take_waiting()
{
    entry taken = std::move(waiting_.front());
    waiting_.pop_front();
    waiting_bytes_ -= taken.memory();
    return taken;
}

request_queue::entry request_queue::take_sent()
{
    entry taken = std::move(sent_.front());
    sent_.pop_front();
    sent_bytes_ -= taken.what.body.size();
    return taken;
}

// The next dump may go then.
request_queue::entry request_queue::take_dump(time_point now)
{
    entry taken = *std::exchange(dump_, std::nullopt);
    if (!waiting_dumps_.empty()) {
        waiting_.push_front(std::move(waiting_dumps_.front()));
        waiting_.front().since = now;
        waiting_dumps_.pop_front();
    }
    return taken;
}

void request_queue::end(entry over, raw_answer how)
{
    ended_.push_back({std::move(over.done), std::move(how)});
}

void request_queue::end_with_result(entry over, std::int32_t result)
{
    raw_answer how;
    if (result < 0) {
        const refused problem(over.what.type, over.what.discriminator,
                              -std::max(result, -max_errno));
        how = {.error_number = problem.number(),
               .is_refused = true,
               .text = problem.what(),
               .reports = {}};
    } else {
        how.reports = std::move(over.reports);
    }
    end(std::move(over), std::move(how));
}

void request_queue::end_unanswered(entry over)
{
    raw_answer how = failure(ETIMEDOUT, over.has_lost ? lost_text : "kelm does not answer");
    end(std::move(over), std::move(how));
}

std::size_t request_queue::outstanding() const
{
    return waiting_.size() + waiting_dumps_.size() + sent_.size() + (dump_ ? 1 : 0);
}

std::optional<request_queue::ending> request_queue::next_ended()
{
    if (ended_.empty())
        return std::nullopt;
    ending first = std::move(ended_.front());
    ended_.pop_front();
    return first;
}

} // namespace kelm
