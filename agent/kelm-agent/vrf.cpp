// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/vrf.h"

#include <cerrno>
#include <sys/stat.h>

#include "libkelm/error.h"
#include "libkelm/netns.h"

namespace kelm_agent
{

namespace
{

constexpr std::chrono::seconds retry_interval{1};
constexpr int most_events_a_round = 256; // others are to have their turn too

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

vrf::connection::connection(const std::string &netns)
    : requests(netns), events(netns), links(netns), around(netns), link_changes(netns)
{
    events.subscribe(all_groups);
}

vrf::vrf(event_loop &loop, const logger &log, std::string netns, observer watching)
    : loop_(loop), log_(log), netns_(std::move(netns)), observer_(std::move(watching))
{
    retry_ = loop_.after({}, [this] { connect(); });
}

std::string vrf::title() const
{
    return netns_.empty() ? "the agent's own namespace" : "namespace " + netns_;
}

void vrf::connect()
{
    namespace_ = namespace_called(netns_);
    try {
        connection_ = std::make_unique<connection>(netns_);
    } catch (const kelm::error &problem) {
        retry_later(problem.what());
        // Other problems are our own, or may pass: kelm may go on without us.
        if (problem.number() == ECONNREFUSED || problem.number() == ENOENT)
            observer_.gone(*this);
        return;
    }
    connection_->on_events = loop_.on_io(connection_->events.fd(), EPOLLIN, [this] { receive(); });
    connection_->on_link_changes = loop_.on_io(connection_->link_changes.fd(), EPOLLIN, [this] {
        connection_->link_changes.drain();
        observer_.links_changed(*this);
    });
    watch_name();
    if (complained_)
        log_.info(title() + ": connected to kelm");
    complained_ = false;
    observer_.connected(*this);
    if (connection_)
        receive(); // what came while the first requests were made
}

// Our sockets would keep a namespace alive that has been deleted, and keep us from one that has its
// name now.
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
    connection_.reset();
    go_on_ = {};
    on_name_due_ = {};
    retry_later(why);
}

void vrf::retry_later(const std::string &why)
{
    if (!complained_)
        log_.warning(title() + ": " + why + "; trying again every second");
    complained_ = true;
    retry_ = loop_.after(retry_interval, [this] { connect(); });
}

void vrf::receive()
{
    try {
        for (int i = 0; i < most_events_a_round; ++i) {
            const auto event = connection_->events.next_event(kelm::milliseconds(0));
            if (!event)
                return;
            observer_.reported(*this, *event);
            if (!connection_)
                return;
        }
        go_on_ = loop_.after({}, [this] { receive(); });
    } catch (const kelm::error &problem) {
        disconnect(problem.what());
    }
}

} // namespace kelm_agent
