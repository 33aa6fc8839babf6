// SPDX-License-Identifier: GPL-2.0
//
// The programs that sessions have run when their state changes (`on-change`).
#pragma once

#include <deque>
#include <map>

#include "kelm-agent/change_feed.h"

namespace kelm_agent
{

// One program at a time for a session; while it runs, of several changes only the last is kept.
// What a program writes is logged, a line at a time. A program that takes too long is killed.
class change_programs
{
  public:
    change_programs(event_loop &, const logger &, change_feed &);
    ~change_programs();
    change_programs(const change_programs &) = delete;
    change_programs &operator=(const change_programs &) = delete;

  private:
    class child;
    struct job {
        std::string program;
        std::vector<std::string> arguments, environment;
        bool is_due = false; // to be run, again
        std::unique_ptr<child> running;
    };

    void take(const session_driver &, const change &);
    void start_those_that_wait();
    void start(const std::string &session, job &);
    void on_end(const std::string &session);

    event_loop &loop_;
    const logger &log_;
    std::map<std::string, job> jobs_; // by session
    std::deque<std::string> waiting_; // sessions
    std::size_t running_ = 0;
    change_feed::subscription subscription_;
};

} // namespace kelm_agent
