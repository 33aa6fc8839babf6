// SPDX-License-Identifier: GPL-2.0
//
// The connection to kelm in one network namespace. It is made as soon as both the namespace and
// kelm exist, and made again when it is lost. Nothing here blocks.
#pragma once

#include <optional>
#include <sys/types.h>

#include "kelm-agent/client_pump.h"
#include "kelm-agent/event_feed.h"
#include "kelm-agent/link_watch.h"
#include "kelm-agent/log.h"
#include "kelm-agent/neighbours.h"
#include "libkelm/interfaces.h"

namespace kelm_agent
{

// Identifies the file behind a name.
struct file_identity {
    dev_t device;
    ino_t inode;
    bool operator==(const file_identity &) const = default;
};

class vrf final : private event_feed::listener
{
  public:
    struct listener {
        virtual ~listener() = default;
        // Requests can be made. Events are kept until feed().caught_up().
        virtual void on_connected(vrf &) = 0;
        // The connection is lost: requests made before will not be answered.
        virtual void on_disconnected(vrf &) = 0;
        // kelm or the namespace does not exist, or no longer does.
        virtual void on_gone(vrf &) = 0;
        virtual void on_event(vrf &, const kelm::report &) = 0;
        virtual void on_batch_end(vrf &) = 0;
        // See event_feed.
        virtual void on_overrun(vrf &) = 0;
        virtual void on_links_changed(vrf &) = 0;
    };

    // How connections are begun, see kelm::transport::begin.
    using opener = std::function<std::unique_ptr<kelm::channel>(const std::string &netns,
                                                                std::uint32_t groups)>;
    // 0, or the positive errno value with which kelm has refused.
    using answer = std::function<void(int error)>;
    using dump_answer = std::function<void(int error, const std::vector<kelm::report> &)>;

    // Connects in the first round of the loop, or later.
    vrf(event_loop &, const logger &, std::string netns, listener &, opener);

    ~vrf() override;

    const std::string &netns() const { return netns_; }
    // "namespace left", "the agent's own namespace"
    std::string title() const;
    bool is_connected() const { return connection_ != nullptr; }

    // The rest may only be called while connected. An answer comes later, or never if the
    // connection is lost.
    void ask(const kelm::request &, answer);
    // Statistics, or a dump. Dumps run one at a time, independently of ask().
    void dump(const kelm::request &, dump_answer);
    // Counts dumps: a request that was made in an earlier round has been answered before this
    // round's dump began, or has not been answered yet.
    std::uint64_t round() const { return round_; }
    std::uint64_t begin_round() { return ++round_; }

    event_feed &feed() { return connection_->feed; }
    const kelm::interfaces &links() const { return connection_->links; }
    const neighbours &neighbour_table() const { return connection_->neighbour_table; }

    // Drops the connection and tries to make it again.
    void disconnect(const std::string &why);

  private:
    struct opening {
        struct half_open {
            std::unique_ptr<kelm::channel> channel;
            event_loop::handle on_answer;
        };
        half_open requests;
        half_open dumps; // separate, so that a long dump delays nothing
        half_open events;
        event_loop::handle patience;
    };
    struct connection {
        connection(vrf &, opening);

        kelm::interfaces links;
        neighbours neighbour_table;
        link_watch link_changes;
        client_pump requests;
        client_pump dumps;
        event_feed feed;
        event_loop::handle on_link_changes;
    };

    void on_event(const kelm::report &) override;
    void on_batch_end() override;
    void on_overrun() override;
    void on_failure(const std::string &why) override;

    void submit(client_pump &, const kelm::request &, kelm::completion);
    void connect();
    opening begin_opening();
    bool is_open(opening::half_open &);
    void go_on_opening();
    void fail_to_open(const kelm::error &);
    void watch_name();
    void retry_later(const std::string &why);

    event_loop &loop_;
    const logger &log_;
    std::string netns_;
    listener &listener_;
    opener open_;
    std::optional<opening> opening_;
    std::unique_ptr<connection> connection_;
    std::unique_ptr<connection> lost_; // its code may still be running
    std::uint64_t round_ = 0;
    event_loop::handle end_;
    event_loop::handle retry_;
    event_loop::handle on_name_due_;
    std::optional<file_identity> namespace_; // the one we are connected in
    bool has_complained_ = false;
};

} // namespace kelm_agent
