// SPDX-License-Identifier: GPL-2.0
#pragma once

#include "kelm-agent/metrics_page.h"
#include "kelm-agent/stream_server.h"

namespace kelm_agent
{

// Offers the page of metrics in the ways that the configuration asks for.
class metrics_exporter
{
  public:
    metrics_exporter(event_loop &loop, const logger &log, agent &running)
        : loop_(loop), log_(log), running_(running)
    {
    }

    // What cannot be offered is logged.
    void configure(const agent_config &);
    // Whether the configuration file was valid when it was last read.
    void note_reload(bool was_successful);

  private:
    using reader = std::function<void(const std::string &page)>;

    bool answer_http(const std::string &received, const stream_server::reply &);
    // One page serves all who ask for it before it is complete.
    void make_page(reader);
    void write_file();
    void replace_file(const std::string &page);
    void listen(const endpoint &);

    event_loop &loop_;
    const logger &log_;
    agent &running_;
    last_reload reload_;
    std::string file_;
    std::optional<endpoint> listening_;
    std::optional<stream_server> server_;
    event_loop::handle timer_;
    std::vector<reader> waiting_;
    std::optional<metrics_page> page_;
    event_loop::handle work_; // on the page
};

} // namespace kelm_agent
