// SPDX-License-Identifier: GPL-2.0
//
// A network namespace that kelmd knows: what the engine sees of it, and what it takes to get
// into it. Made, announced and destroyed by namespace_set, on the control thread.
#pragma once

#include <atomic>
#include <compare>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <sys/types.h>

#include "platform/hosted/netlink.h"
#include "platform/net.h"
#include "platform/user/fd.h"

namespace kelmd
{

class agent_listener;

// What makes two names the same namespace.
struct netns_key {
    dev_t device;
    ino_t inode;

    auto operator<=>(const netns_key &) const = default;
};

// Why a namespace could not be given a vrf: the last thing that the host refused the engine.
struct obstacle {
    enum kind { NONE, AGENT_SOCKET_TAKEN, PORT_TAKEN, OTHER };

    kind what = NONE;
    std::uint16_t port = 0; // of PORT_TAKEN
    const char *call = "";  // of OTHER
    int error = 0;          // errno

    bool operator==(const obstacle &) const = default;
};

} // namespace kelmd

// "lo", the one device of each namespace that is told of.
struct net_device {
    net *owner;
};

struct net {
    net(kelmd::netns_key the_key, kelmd::unique_fd the_handle, bool is_initial);
    ~net();
    net(const net &) = delete;
    net &operator=(const net &) = delete;

    const kelmd::netns_key key;
    const kelmd::unique_fd handle; // an open descriptor keeps the namespace in being
    const bool initial;

    // The control thread's.
    std::set<std::string> names; // in /run/netns
    std::string label;           // for people
    bool held = false;           // names and processes: one reference for all of them
    kelmd::obstacle obstacle;    // NONE while served
    kelmd::obstacle reported;    // the one that the log has told of
    std::unique_ptr<kelmd::agent_listener> agents; // while it has a kernel netlink socket

    // Any thread.
    hosted::netlink_table netlink;
    net_device lo{this};
    std::atomic<int> references = 0;
};

namespace kelmd
{

// References on the namespace as net_refcount counts them. Any thread. Whoever gives back the
// last one must not touch the namespace any more.
void get_net(net &ns);
void put_net(net &ns);

// Puts the calling thread into a namespace for the time of its life. A thread that cannot
// return ends the process: it would act in a namespace that nobody meant.
class in_namespace
{
  public:
    explicit in_namespace(const net &ns);
    ~in_namespace();
    in_namespace(const in_namespace &) = delete;
    in_namespace &operator=(const in_namespace &) = delete;

    // 0, or why the thread stayed where it was (errno).
    [[nodiscard]] int error() const { return error_; }

  private:
    int error_ = 0;
    bool entered_ = false;
};

// The namespace that kelmd was started in, open for the life of the process.
[[nodiscard]] int initial_namespace_fd();

} // namespace kelmd
