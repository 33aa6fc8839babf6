// SPDX-License-Identifier: GPL-2.0
//
// Closes agents' sockets, on a thread of its own. What an agent has sent may hold descriptors,
// which go with the socket that they are queued in; and to close one of those (SO_LINGER) can take
// as long as the agent likes.
#pragma once

#include <deque>
#include <optional>
#include <thread>

#include "platform/hosted/mutex.h"
#include "platform/user/connection_quota.h"
#include "shared/unique_fd.h"

namespace kelmd
{

class socket_closer
{
  public:
    // Starts no thread.
    socket_closer() = default;
    // Closes what is left.
    ~socket_closer();
    socket_closer(const socket_closer &) = delete;
    socket_closer &operator=(const socket_closer &) = delete;

    // Throws std::system_error.
    void start();

    // The place, if any, is given back once the socket is closed. Any thread.
    void close(kelm::unique_fd socket, std::optional<connection_quota::place> place);

    // Whether so many sockets wait that no more should be made. Any thread.
    [[nodiscard]] bool is_behind();

  private:
    struct closing {
        std::optional<connection_quota::place> place;
        kelm::unique_fd socket; // the first to go
    };

    void run();
    [[nodiscard]] std::optional<closing> next();

    hosted::mutex mutex_;
    hosted::condition changed_;
    std::deque<closing> waiting_;
    bool stopping_ = false;
    std::thread thread_;
};

} // namespace kelmd
