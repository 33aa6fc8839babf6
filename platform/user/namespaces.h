// SPDX-License-Identifier: GPL-2.0
//
// The namespaces that kelmd serves: found, announced to the engine, given up.
//
// Life of a namespace here: found by its name; announced, so that the engine makes its vrf, and
// again from time to time while it cannot; held by us while it has a name, then while it has
// processes; let go, so that the engine's cleanup thread sees that only its own sockets are left
// and lets go too; and when the last of those is released, reported gone and forgotten.
//
// All on the control thread, unless a function says otherwise.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/user/event_loop.h"
#include "platform/user/loop_timer.h"
#include "platform/user/net.h"
#include "platform/user/netns_directory.h"
#include "platform/user/netns_key.h"

namespace kelmd
{

struct namespace_options {
    bool initial_only = false;
    std::set<std::string> only; // names to serve; empty: all
};

class namespace_set
{
  public:
    // The loop must outlive it. Throws std::system_error.
    namespace_set(event_loop &loop, namespace_options options);
    ~namespace_set();

    // Announces the initial namespace and then all others that there are, and from then on those
    // that come and go. 0, or a negative error number if the initial one got no vrf.
    int start(notifier_block *notifier);

    // Announces nothing more.
    void stop();

    // Closes the agents' sockets and connections in all namespaces.
    void close_agents();

    // The same in one, at once on the control thread, otherwise later there. Any thread that holds
    // a reference on the namespace.
    void close_agents_of(net &ns);

    // Gives up the namespaces that nothing refers to any more, later. Any thread.
    void reap_soon();

    // Why the initial namespace is not served, in one line. error is the engine's, in case the host
    // has refused nothing.
    [[nodiscard]] std::string initial_obstacle(int error) const;

  private:
    struct served;

    served &take_up(netns_key key, kelm::unique_fd handle);
    void announce(served &ns);
    void report(served &ns);
    void watch_names();
    void scan();
    void update_names(served &ns, std::set<std::string> names);
    void retry_unserved();
    void let_go_abandoned();
    void reap();

    event_loop &loop_;
    const namespace_options options_;
    notifier_block *notifier_ = nullptr;
    std::vector<std::unique_ptr<served>> served_; // in the order of announcement
    std::optional<netns_directory> directory_;
    loop_timer scan_again_;    // while a name waits for its mount, or names cannot be seen
    loop_timer retry_;         // while a namespace is not served
    loop_timer process_check_; // while a namespace has processes, but no name
    std::chrono::milliseconds mount_wait_{};
};

} // namespace kelmd
