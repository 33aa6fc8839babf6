// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/event_feed.h"

#include <utility>

#include "libkelm/error.h"

namespace kelm_agent
{

namespace
{

constexpr int most_events_a_round = 256; // others are to have their turn too

// More than any queue holds: reading to the end ends even if kelm sends faster than we read.
constexpr std::size_t longest_backlog = 1 << 15;

} // namespace

event_feed::event_feed(event_loop &loop, std::unique_ptr<kelm::client> client, listener &listening)
    : loop_(loop), client_(std::move(client)), listener_(listening), episode_{.began = loop.now()},
      on_events_(loop.on_io(client_->fd(), EPOLLIN, [this] { read(); })),
      go_on_(loop.soon([this] { read(); })) // events that came with the answer to the subscription
{
}

void event_feed::read_to_end(event_loop::callback then)
{
    rest_ = longest_backlog;
    at_end_.push_back(std::move(then));
    go_on_ = loop_.soon([this] { read(); });
}

void event_feed::read()
{
    go_on_ = {};
    try {
        const bool is_end = read_batch();
        if (!is_end)
            go_on_ = loop_.soon([this] { read(); });
        if (mode_ == mode::following)
            listener_.on_batch_end();
        if (is_end || rest_ == 0)
            reach_end();
    } catch (const kelm::error &problem) {
        listener_.on_failure(problem.what());
    }
}

// Returns whether the queue is empty.
bool event_feed::read_batch()
{
    for (int i = 0; i < most_events_a_round; ++i) {
        const auto event = client_->next_event(kelm::milliseconds(0));
        if (!event)
            return true;
        take(*event);
    }
    return false;
}

void event_feed::take(const kelm::report &event)
{
    if (rest_ > 0)
        --rest_;
    if (std::holds_alternative<kelm::overrun>(event))
        take_overrun();
    else if (mode_ == mode::dropping)
        ++episode_.dropped;
    else
        listener_.on_event(event);
}

void event_feed::take_overrun()
{
    if (mode_ == mode::reconciling)
        is_overrun_again_ = true;
    if (mode_ == mode::following && !next_)
        begin();
    ++episode_.overruns;
}

void event_feed::begin()
{
    next_ = {};
    if (const auto now = loop_.now(); now < not_before_) {
        next_ = loop_.after(std::chrono::ceil<std::chrono::microseconds>(not_before_ - now),
                            [this] { begin(); });
        return;
    }
    mode_ = mode::dropping;
    episode_.began = loop_.now();
    rest_ = longest_backlog;
    go_on_ = loop_.soon([this] { read(); });
}

void event_feed::reach_end()
{
    if (mode_ == mode::dropping) {
        mode_ = mode::reconciling;
        listener_.on_overrun();
    }
    for (const auto &then : std::exchange(at_end_, {}))
        then();
}

void event_feed::caught_up()
{
    const auto now = loop_.now();
    mode_ = mode::following;
    not_before_ = now + (now - episode_.began);
    episode_ = {};
    listener_.on_batch_end();
    if (std::exchange(is_overrun_again_, false))
        begin();
}

} // namespace kelm_agent
