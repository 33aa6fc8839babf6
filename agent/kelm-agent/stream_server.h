// SPDX-License-Identifier: GPL-2.0
//
// One request, one answer, which may go on for ever: a listening stream socket whose clients are
// served without waiting for any of them.
#pragma once

#include <list>
#include <memory>
#include <optional>
#include <string>

#include "kelm-agent/event_loop.h"
#include "shared/unique_fd.h"

namespace kelm_agent
{

class stream_server
{
  public:
    // Writes the next piece of an answer; empty: there was no more; nothing: there is none yet.
    // Called when the client can take it, so that a long answer keeps nobody waiting and takes
    // little memory.
    using writer = std::function<std::optional<std::string>()>;
    // Has the writer asked again that had nothing. The client may be gone by then.
    using waker = std::function<void()>;
    // Takes the answer to a request, once, at any time; its end ends the connection.
    using reply = std::function<waker(writer)>;
    // Given all that has come so far: false while more is needed. Otherwise the reply will be
    // called; the client may be gone by then.
    using answerer = std::function<bool(const std::string &received, reply)>;

    // `listening` is a bound and listening stream socket.
    stream_server(event_loop &, kelm::unique_fd listening, answerer);

    // An answer in one piece.
    static writer whole(std::string);

  private:
    struct client {
        kelm::unique_fd fd;
        std::string received;
        writer answer;
        std::string piece;
        std::size_t sent = 0;       // of the piece
        bool is_waiting = false;    // for the writer
        bool is_open_ended = false; // has waited for it before
        event_loop::handle on_ready;
        event_loop::handle on_timeout;
    };
    using client_position = std::list<std::shared_ptr<client>>::iterator;

    void accept_client();
    void make_room();
    void limit_time(client_position);
    void read_from(client_position);
    waker answer(client_position, writer);
    void write_when_possible(client_position);
    void write_to(client_position);
    void wait_for_more(client_position);
    void wake(client_position);

    event_loop &loop_;
    kelm::unique_fd listening_;
    answerer answer_;
    std::list<std::shared_ptr<client>> clients_;
    event_loop::handle on_client_;
};

} // namespace kelm_agent
