// SPDX-License-Identifier: GPL-2.0
//
// The answer to a client that subscribes: the state of each session, then every change, a line of
// JSON each.
#pragma once

#include "kelm-agent/agent.h"
#include "kelm-agent/stream_server.h"

namespace kelm_agent
{

class change_stream
{
  public:
    // Of the sessions with these names, which exist; of all, future ones too, if `is_of_all`. The
    // agent outlives the answer.
    static void send(agent &, std::vector<std::string> names, bool is_of_all,
                     const stream_server::reply &);

  private:
    change_stream(agent &, std::vector<std::string> names, bool is_of_all);

    std::optional<std::string> next();
    void take(const session_driver &, const change &);

    const agent &running_;
    std::vector<std::string> names_; // in order
    bool is_of_all_;
    std::size_t told_ = 0;  // of the names
    std::string waiting_;   // lines
    bool is_ended_ = false; // too much was waiting
    stream_server::waker wake_;
    change_feed::subscription subscription_;
};

} // namespace kelm_agent
