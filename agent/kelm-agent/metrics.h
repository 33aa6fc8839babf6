// SPDX-License-Identifier: GPL-2.0
//
// Metrics for Prometheus. Every session has all of its series in every state.
#pragma once

#include "kelm-agent/session_report.h"
#include "kelm-agent/stream_server.h"

namespace kelm_agent
{

// In the text exposition format; counters as kelm has told them last.
std::string metrics_text(const agent &);

// Answers a request for the metrics over HTTP/1. False while the request is incomplete.
bool answer_http(agent &, const std::string &received, stream_server::reply);

// Offers the metrics in the ways that the configuration asks for.
class metrics_exporter
{
  public:
    metrics_exporter(event_loop &loop, const logger &log, agent &running)
        : loop_(loop), log_(log), running_(running)
    {
    }

    // What cannot be offered is logged.
    void configure(const agent_config &);

  private:
    void write_file();
    void replace_file();
    void listen(const endpoint &);

    event_loop &loop_;
    const logger &log_;
    agent &running_;
    std::string file_;
    std::optional<endpoint> listening_;
    std::optional<stream_server> server_;
    event_loop::handle timer_;
};

} // namespace kelm_agent
