// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/vrf.h"

#include <cerrno>
#include <sys/stat.h>
#include <utility>

#include "libkelm/error.h"
#include "libkelm/netns.h"

namespace kelm_agent
{

namespace
{

constexpr std::chrono::seconds retry_interval{1};

constexpr std::uint32_t all_groups =
    1U << (KELM_NLG_NUM_CONTROL - 1) | 1U << (KELM_NLG_NUM_NOTIFICATION - 1);

std::optional<file_identity> namespace_called(const std::string &netns)
{
    struct stat status = {};
    if (netns.empty() || stat(kelm::netns_path(netns).c_str(), &status) != 0)
        return std::nullopt;
    return file_identity{status.st_dev, status.st_ino};
}

} // namespace

vrf::connection::connection(vrf &owner, opening opened)
    : links(owner.netns_), neighbour_table(owner.netns_), link_changes(owner.netns_),
      requests(owner.loop_, std::move(opened.requests.channel),
               [&](const auto &why) { owner.disconnect(why); }),
      dumps(owner.loop_, std::move(opened.dumps.channel),
            [&](const auto &why) { owner.disconnect(why); }),
      feed(owner.loop_, std::make_unique<kelm::client>(std::move(opened.events.channel)), owner),
      on_link_changes(owner.loop_.on_io(link_changes.fd(), EPOLLIN, [this, &owner] {
          link_changes.drain();
          owner.listener_.on_links_changed(owner);
      }))
{
}

vrf::vrf(event_loop &loop, const logger &log, std::string netns, listener &listening, opener open)
    : loop_(loop), log_(log), netns_(std::move(netns)), listener_(listening),
      open_(std::move(open)), retry_(loop.soon([this] { connect(); }))
{
}

// The completions of requests that end here must see that there is no connection.
vrf::~vrf()
{
    const auto ended = std::move(connection_);
}

std::string vrf::title() const
{
    return netns_.empty() ? "the agent's own namespace" : "namespace " + netns_;
}

void vrf::connect()
{
    namespace_ = namespace_called(netns_);
    try {
        opening_.emplace(begin_opening());
    } catch (const kelm::error &problem) {
        return fail_to_open(problem);
    }
    go_on_opening();
}

vrf::opening vrf::begin_opening()
{
    opening begun;
    begun.requests.channel = open_(netns_, 0);
    begun.dumps.channel = open_(netns_, 0);
    begun.events.channel = open_(netns_, all_groups);
    begun.patience = loop_.after(kelm::answer_timeout, [this] {
        fail_to_open({ETIMEDOUT, "kelmd does not answer"});
    });
    return begun;
}

bool vrf::is_open(opening::half_open &half)
{
    half.on_answer = {}; // a descriptor is watched once
    if (half.channel->is_open())
        return true;
    half.on_answer = loop_.on_io(half.channel->fd(), EPOLLIN, [this] { go_on_opening(); });
    return false;
}

void vrf::go_on_opening()
{
    try {
        if (!is_open(opening_->requests) || !is_open(opening_->dumps) || !is_open(opening_->events))
            return;
        connection_ = std::make_unique<connection>(*this, *std::exchange(opening_, std::nullopt));
    } catch (const kelm::error &problem) {
        return fail_to_open(problem);
    }
    watch_name();
    if (has_complained_)
        log_.info(title() + ": connected to kelm");
    has_complained_ = false;
    listener_.on_connected(*this);
}

void vrf::fail_to_open(const kelm::error &problem)
{
    opening_.reset();
    retry_later(problem.what());
    // Other problems are our own, or may pass: kelm may go on without us.
    if (problem.number() == ECONNREFUSED || problem.number() == ENOENT)
        listener_.on_gone(*this);
}

// Our sockets keep a deleted namespace alive; another one may have its name by now.
void vrf::watch_name()
{
    if (netns_.empty())
        return;
    on_name_due_ = loop_.after(retry_interval, [this] {
        if (namespace_called(netns_) != namespace_)
            disconnect("the namespace has been deleted");
        else
            watch_name();
    });
}

void vrf::disconnect(const std::string &why)
{
    if (!connection_)
        return;
    lost_ = std::move(connection_);
    end_ = loop_.soon([this] { lost_.reset(); });
    on_name_due_ = {};
    retry_later(why);
    listener_.on_disconnected(*this);
}

void vrf::retry_later(const std::string &why)
{
    if (!has_complained_)
        log_.warning(title() + ": " + why + "; retrying every second");
    has_complained_ = true;
    retry_ = loop_.after(retry_interval, [this] { connect(); });
}

void vrf::ask(const kelm::request &request, answer done)
{
    submit(connection_->requests, request,
           [done = std::move(done)](const kelm::answer &got) { done(got.error_number); });
}

void vrf::dump(const kelm::request &request, dump_answer done)
{
    submit(connection_->dumps, request, [done = std::move(done)](const kelm::answer &got) {
        done(got.error_number, got.reports);
    });
}

// Any error that is not kelm's refusal ends the connection. Completions of a connection that has
// already ended are ignored.
void vrf::submit(client_pump &to, const kelm::request &request, kelm::completion done)
{
    const auto *const asked = connection_.get();
    to.submit(request, [this, asked, done = std::move(done)](const kelm::answer &got) {
        if (asked != connection_.get())
            return;
        if (got.error_number != 0 && !got.is_refused)
            return disconnect(got.text);
        done(got);
    });
}

void vrf::on_event(const kelm::report &event)
{
    listener_.on_event(*this, event);
}

void vrf::on_batch_end()
{
    listener_.on_batch_end(*this);
}

void vrf::on_overrun()
{
    listener_.on_overrun(*this);
}

void vrf::on_failure(const std::string &why)
{
    disconnect(why);
}

} // namespace kelm_agent
