// SPDX-License-Identifier: GPL-2.0
//
// One request, one answer: a listening stream socket whose clients are served without waiting for
// any of them.
#pragma once

#include <list>
#include <optional>
#include <string>

#include "kelm-agent/event_loop.h"
#include "libkelm/fd.h"

namespace kelm_agent
{

class stream_server
{
  public:
    // Where a request is complete, given all that has come so far. The answer to it ends the
    // connection. Nothing while more is needed.
    using answerer = std::function<std::optional<std::string>(const std::string &)>;

    // `listening` is a bound and listening stream socket.
    stream_server(event_loop &, kelm::unique_fd listening, answerer);

  private:
    struct client {
        kelm::unique_fd fd;
        std::string received;
        std::string unsent;
        event_loop::handle on_ready;
        event_loop::handle on_timeout;
    };
    using client_position = std::list<client>::iterator;

    void accept_client();
    void read_from(client_position);
    void write_to(client_position);

    event_loop &loop_;
    kelm::unique_fd listening_;
    answerer answer_;
    std::list<client> clients_;
    event_loop::handle on_client_;
};

} // namespace kelm_agent
