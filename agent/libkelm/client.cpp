// SPDX-License-Identifier: GPL-2.0
#include "libkelm/client.h"

#include <cerrno>
#include <random>

#include "libkelm/error.h"

namespace kelm
{

namespace
{

using std::chrono::steady_clock;

constexpr int dump_attempts = 5;
constexpr std::size_t max_queued_events = 1 << 14;

milliseconds until(steady_clock::time_point deadline)
{
    const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
    return std::max(left, milliseconds(0));
}

bool clears_counters(const request &req)
{
    const auto body = read_as<kelm_msg_get_stats>(req.body);
    return req.type == KELM_MSG_GET_STATS && body && (body->flags & KELM_STATS_CLEAR) != 0;
}

} // namespace

// Sequence numbers start at random, so that no message of another agent's making, which kelm
// would multicast as it is, passes for an answer.
client::client(transport socket) : socket_(std::move(socket)), sequence_(std::random_device{}()) {}

std::vector<report> client::execute(const request &req)
{
    return converse(req, NLM_F_ACK).reports;
}

std::vector<report> client::dump(const request &req)
{
    for (int attempt = 0; attempt < dump_attempts; ++attempt) {
        answer got = converse(req, 0);
        if (!got.lost && !got.interrupted)
            return std::move(got.reports);
        if (got.lost && clears_counters(req))
            throw error(ENOBUFS, "notifications came in faster than they were read, and statistics "
                                 "that are now cleared may be lost");
    }
    throw error(ENOBUFS, "the dump did not come through in " + std::to_string(dump_attempts) +
                             " attempts: notifications come in faster than they are read");
}

std::vector<report> client::statistics(std::uint32_t discriminator, std::uint32_t flags)
{
    const request req = get_stats(discriminator, flags);
    return starts_dump(req) ? dump(req) : execute(req);
}

// Sends the request and reads until its acknowledgement or the end of its dump. Events, however
// many, are no sign that the answer is under way.
client::answer client::converse(const request &req, std::uint16_t flags)
{
    ++sequence_;
    socket_.send(encode(req, flags, sequence_, socket_.port_id()));

    answer got;
    bytes datagram;
    auto deadline = steady_clock::now() + answer_timeout_;
    for (;;) {
        switch (socket_.receive(datagram, until(deadline))) {
        case transport::outcome::timed_out:
            throw error(ETIMEDOUT, got.lost ? "kelm's answer is among the datagrams that were lost "
                                              "because notifications came in too fast"
                                            : "kelm does not answer");
        case transport::outcome::overrun:
            got.lost = true;
            queue_event(overrun{});
            continue;
        case transport::outcome::datagram:
            break;
        }
        const std::size_t before = got.reports.size();
        message_reader reader(datagram);
        while (auto msg = reader.next())
            take_answer(*msg, got);
        if (got.result.value_or(0) < 0)
            throw refused(req.type, req.discriminator, static_cast<int>(-*got.result));
        if (got.result)
            return got;
        if (got.reports.size() > before)
            deadline = steady_clock::now() + answer_timeout_;
        else if (steady_clock::now() >= deadline)
            throw error(ETIMEDOUT, "kelm answers nothing but notifications");
    }
}

// Sorts one message: to the answer, or to the events.
void client::take_answer(const message &msg, answer &into)
{
    const std::uint16_t type = msg.header.nlmsg_type;
    if (type == NLMSG_OVERRUN)
        into.lost = true;
    if (msg.header.nlmsg_seq != sequence_ || msg.header.nlmsg_pid != socket_.port_id()) {
        queue_event(parse_report(msg));
        return;
    }
    if ((msg.header.nlmsg_flags & NLM_F_DUMP_INTR) != 0)
        into.interrupted = true;
    if (type == NLMSG_ERROR || type == NLMSG_DONE) {
        // Both begin with 0 or a negative error number; a done message may come without.
        into.result = read_as<std::int32_t>(msg.body).value_or(0);
        return;
    }
    into.reports.push_back(parse_report(msg));
}

// A late answer to a request that was given up is nothing that anybody waits for.
void client::queue_event(report event)
{
    const auto *unknown = std::get_if<unknown_message>(&event);
    if (unknown != nullptr && unknown->type < NLMSG_MIN_TYPE)
        return;
    if (events_.size() >= max_queued_events) {
        if (!std::holds_alternative<overrun>(events_.back()))
            events_.back() = overrun{};
        return;
    }
    events_.push_back(std::move(event));
}

void client::receive_events(const bytes &datagram)
{
    message_reader reader(datagram);
    while (auto msg = reader.next())
        queue_event(parse_report(*msg));
}

std::optional<report> client::next_event(milliseconds timeout)
{
    const auto deadline = steady_clock::now() + timeout;
    bytes datagram;
    while (events_.empty()) {
        switch (socket_.receive(datagram, until(deadline))) {
        case transport::outcome::timed_out:
            return std::nullopt;
        case transport::outcome::overrun:
            queue_event(overrun{});
            break;
        case transport::outcome::datagram:
            receive_events(datagram);
            break;
        }
    }
    report first = std::move(events_.front());
    events_.pop_front();
    return first;
}

} // namespace kelm
