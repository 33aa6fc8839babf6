// SPDX-License-Identifier: GPL-2.0
//
// kelmd as one object: what stands in for a kernel. main makes the only one. The services that the
// engine calls do not get it as an argument; they find it through the_host().
#pragma once

#include <memory>

#include "platform/user/connection_quota.h"
#include "platform/user/event_loop.h"
#include "platform/user/log.h"
#include "platform/user/namespaces.h"
#include "platform/user/socket_closer.h"
#include "platform/user/softirq.h"
#include "platform/user/timer.h"
#include "platform/user/udp_socket.h"

namespace kelmd
{

// The members in the order of their construction: each uses earlier ones only.
struct host {
    // Starts no thread. The calling thread becomes the control thread. Throws std::system_error.
    explicit host(namespace_options options);
    host(const host &) = delete;
    host &operator=(const host &) = delete;

    log_ring log;
    event_loop loop;
    timer_base timers;
    softirq_thread softirq{timers};
    const std::unique_ptr<receive_batch> batch = std::make_unique<receive_batch>();
    connection_quota connections;
    socket_closer closer;
    namespace_set namespaces;
};

// Valid as long as the host lives. Any thread.
[[nodiscard]] host &the_host();

} // namespace kelmd
