// SPDX-License-Identifier: GPL-2.0
#include "libkelm/client.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <random>
#include <utility>

#include "libkelm/error.h"
#include "libkelm/message.h"
#include "libkelm/transport.h"

namespace kelm
{

namespace
{

constexpr std::size_t max_queued_events = 1 << 14;

// progress() leaves what is more for its next call.
constexpr int datagrams_per_call = 64;

// As much as any socket holds unread.
constexpr std::size_t unread_limit = 8 << 20;

error closed()
{
    return {ECANCELED, "the connection to kelm has been closed"};
}

std::vector<report> decode_all(std::vector<raw_report> raw)
{
    std::vector<report> decoded;
    decoded.reserve(raw.size());
    for (raw_report &report : raw)
        decoded.push_back(decode_report(std::move(report)));
    return decoded;
}

const raw_report overrun_event = {.type = NLMSG_OVERRUN, .is_well_formed = true, .body = {}};

} // namespace

client::client(const std::string &netns) : client(transport::open(netns)) {}

// Sequence numbers start at random, so that no message of another agent's making, which kelm
// would multicast as it is, passes for an answer.
client::client(std::unique_ptr<channel> to_kelm)
    : channel_(std::move(to_kelm)), queue_(std::random_device{}())
{
}

client::~client()
{
    is_closing_ = true;
    queue_.abandon(closed());
    while (auto ended = queue_.next_ended()) {
        try {
            ended->done(std::move(ended->how));
        } catch (...) {
        }
    }
}

// Requests

void client::submit(request req, completion done)
{
    submit_raw(std::move(req), [done = std::move(done)](raw_answer how) {
        done({.error_number = how.error_number,
              .is_refused = how.is_refused,
              .text = std::move(how.text),
              .reports = decode_all(std::move(how.reports))});
    });
}

void client::submit_raw(request req, raw_completion done)
{
    if (is_closing_)
        throw closed();
    queue_.submit(std::move(req), std::move(done), channel_->now());
}

void client::progress()
{
    try {
        exchange();
    } catch (const error &problem) {
        queue_.abandon(problem);
        complete();
        throw;
    }
    complete();
}

void client::exchange()
{
    const bool has_read_all = receive_some();
    if (is_time_up(has_read_all))
        queue_.expire(channel_->now(), answer_timeout_);
    queue_.flush(*channel_);
}

// False if there may be more to read.
bool client::receive_some()
{
    for (int i = 0; i < datagrams_per_call; ++i) {
        switch (channel_->receive(datagram_)) {
        case channel::outcome::nothing:
            if (channel_->is_kernel())
                queue_.end_lost();
            return true;
        case channel::outcome::overrun:
            queue_.overrun();
            queue_event(overrun_event);
            break;
        case channel::outcome::datagram:
            overdue_bytes_ += datagram_.size();
            take(datagram_);
            break;
        }
    }
    return false;
}

// Sorts messages: to the answers, or to the events.
void client::take(byte_view datagram)
{
    message_reader reader(datagram);
    while (auto msg = reader.next()) {
        if (msg->header.nlmsg_type == NLMSG_OVERRUN)
            queue_.overrun();
        else if (queue_.take(*msg, channel_->port_id(), channel_->now()))
            continue;
        queue_event(check_report(*msg));
    }
}

// What had arrived by the deadline is read before a request is given up: it may be the agent that
// has been slow, and not kelm.
bool client::is_time_up(bool has_read_all)
{
    const auto due = queue_.deadline(answer_timeout_);
    if (!due || *due > channel_->now()) {
        overdue_bytes_ = 0;
        return false;
    }
    return has_read_all || overdue_bytes_ > unread_limit;
}

void client::complete()
{
    while (auto ended = queue_.next_ended())
        ended->done(std::move(ended->how));
}

short client::poll_events() const
{
    return queue_.can_send() ? POLLIN | POLLOUT : POLLIN;
}

std::optional<time_point> client::deadline() const
{
    return queue_.has_ended() ? time_point() : queue_.deadline(answer_timeout_);
}

void client::wait(time_point until)
{
    channel_->wait(poll_events(), std::min(until, deadline().value_or(until)));
}

// Shared, because a completion that throws ends the wait and leaves ours behind.
std::vector<raw_report> client::execute_raw(const request &req)
{
    const auto ended = std::make_shared<std::optional<raw_answer>>();
    submit_raw(req, [ended](raw_answer how) { *ended = std::move(how); });
    for (progress(); !*ended; progress())
        wait(time_point::max());
    raw_answer &how = **ended;
    if (how.is_refused)
        throw refused(req.type, req.discriminator, how.error_number);
    if (how.error_number != 0)
        throw error(how.error_number, how.text);
    return std::move(how.reports);
}

std::vector<report> client::execute(const request &req)
{
    return decode_all(execute_raw(req));
}

// Events

// Netlink's own messages are nothing for the caller.
void client::queue_event(raw_report event)
{
    if (event.type < NLMSG_MIN_TYPE && event.type != NLMSG_OVERRUN)
        return;
    if (events_.size() >= max_queued_events) {
        events_.back() = overrun_event;
        return;
    }
    events_.push_back(std::move(event));
}

std::optional<raw_report> client::next_raw_event(milliseconds timeout)
{
    const time_point until = channel_->now() + timeout;
    if (events_.empty())
        progress();
    while (events_.empty() && channel_->now() < until) {
        wait(until);
        progress();
    }
    if (events_.empty())
        return std::nullopt;
    raw_report first = std::move(events_.front());
    events_.pop_front();
    return first;
}

std::optional<report> client::next_event(milliseconds timeout)
{
    auto event = next_raw_event(timeout);
    if (!event)
        return std::nullopt;
    return decode_report(*std::move(event));
}

} // namespace kelm
