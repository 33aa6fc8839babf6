// SPDX-License-Identifier: GPL-2.0
//
// The connection to kelm in one network namespace. It is made as soon as namespace and kelm are
// there, and again when it has been lost.
#pragma once

#include <optional>

#include "kelm-agent/event_loop.h"
#include "kelm-agent/link_watch.h"
#include "kelm-agent/log.h"
#include "kelm-agent/neighbours.h"
#include "libkelm/client.h"
#include "libkelm/interfaces.h"

namespace kelm_agent
{

// Which file a name stands for.
struct file_identity {
    dev_t device;
    ino_t inode;
    bool operator==(const file_identity &) const = default;
};

class vrf
{
  public:
    struct observer {
        // Requests can be made. Events that come from now on will be reported.
        std::function<void(vrf &)> connected;
        // There is no kelm, or no namespace (any more).
        std::function<void(vrf &)> gone;
        std::function<void(vrf &, const kelm::report &)> reported;
        std::function<void(vrf &)> links_changed;
    };

    // Connects in the first round of the loop, or later.
    vrf(event_loop &, const logger &, std::string netns, observer);

    const std::string &netns() const { return netns_; }
    // "namespace left", "the agent's own namespace"
    std::string title() const;
    bool is_connected() const { return connection_ != nullptr; }

    // Only while connected.
    kelm::client &requests() { return connection_->requests; }
    const kelm::interfaces &links() const { return connection_->links; }
    const neighbours &around() const { return connection_->around; }

    // Gives the connection up, and tries to make it again.
    void disconnect(const std::string &why);

  private:
    struct connection {
        explicit connection(const std::string &netns);

        kelm::client requests;
        kelm::client events; // apart, so that no flood of them costs us an answer
        kelm::interfaces links;
        neighbours around;
        link_watch link_changes;
        event_loop::handle on_events;
        event_loop::handle on_link_changes;
    };

    void connect();
    void watch_name();
    void retry_later(const std::string &why);
    void receive();

    event_loop &loop_;
    const logger &log_;
    std::string netns_;
    observer observer_;
    std::unique_ptr<connection> connection_;
    event_loop::handle retry_;
    event_loop::handle go_on_;
    event_loop::handle on_name_due_;
    std::optional<file_identity> namespace_; // that we are connected in
    bool complained_ = false;
};

} // namespace kelm_agent
