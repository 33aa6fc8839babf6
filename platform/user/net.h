// SPDX-License-Identifier: GPL-2.0
//
// A network namespace as the engine sees it, and the way into it. How it is found, served and given
// up is namespaces.h.
#pragma once

#include <atomic>
#include <memory>

#include "platform/hosted/netlink.h"
#include "platform/net.h"
#include "platform/user/obstacle.h"
#include "shared/unique_fd.h"

namespace kelmd
{

class agent_listener;

} // namespace kelmd

// "lo", the only device of each namespace that is reported.
struct net_device {
    net *owner;
};

struct net {
    // Without a handle: the initial namespace, in which kelmd was started.
    explicit net(kelm::unique_fd the_handle);
    ~net();
    net(const net &) = delete;
    net &operator=(const net &) = delete;

    const kelm::unique_fd handle; // an open descriptor keeps the namespace alive

    // Any thread.
    hosted::netlink_table netlink;
    net_device lo{this};
    std::atomic<int> references = 0;

    // The control thread's.
    std::unique_ptr<kelmd::agent_listener> agents; // while it has a kernel netlink socket
    kelmd::obstacle obstacle; // the last thing that was refused to the engine here
};

namespace kelmd
{

// References on the namespace as net_refcount counts them. Any thread. A caller that gives back the
// last one must not touch the namespace any more.
void get_net(net &ns);
void put_net(net &ns);

// Puts the calling thread into a namespace for the time of its life. A thread that cannot return
// ends the process: it would act in the wrong namespace.
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
    kelm::unique_fd origin_; // if the thread has entered another one
};

} // namespace kelmd
