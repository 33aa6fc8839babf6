// SPDX-License-Identifier: GPL-2.0
//
// The socket for `kelmctl agent`: a request is one line of JSON, its answer another one. Accessible
// to the user who runs the agent and to root.
//
//   {"command": "show", "sessions": ["name", ...]}        all sessions if none is named
//   {"command": "history", "sessions": ["name", ...]}
//   {"command": "down", "sessions": ["name", ...]}        and "up": administratively
//   {"command": "reload"}                                 answered when the outcome is known
//   {"command": "subscribe", "sessions": ["name", ...]}   answered with a line for each session,
//                                                         then with one for every change
//
//   {"ok": true, "sessions": [{...}, ...]}                 or "changes", or neither
//   {"ok": false, "error": "a sentence"}
#pragma once

#include "kelm-agent/reloader.h"

namespace kelm_agent
{

class control_socket
{
  public:
    // Throws kelm::error when the socket cannot be made, or another agent serves it.
    control_socket(event_loop &, const std::string &path);
    ~control_socket();
    control_socket(const control_socket &) = delete;
    control_socket &operator=(const control_socket &) = delete;

    // Requests are answered from now on.
    void serve(agent &, reloader &);

  private:
    event_loop &loop_;
    std::string path_;
    kelm::unique_fd listening_;
    std::optional<stream_server> server_;
};

} // namespace kelm_agent
