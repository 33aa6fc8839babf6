// SPDX-License-Identifier: GPL-2.0
//
// Metrics for Prometheus. Every session has all of its series in every state.
#pragma once

#include "kelm-agent/agent.h"

namespace kelm_agent
{

// How the configuration file was taken, the last time, and when it was taken last.
struct last_reload {
    bool was_successful = true;
    wall_time succeeded = std::chrono::system_clock::now();
};

// One page in the text exposition format, made step by step; counters as kelm has told them last.
class metrics_page
{
  public:
    // The agent outlives the page.
    metrics_page(const agent &, const last_reload &);
    ~metrics_page();
    metrics_page(const metrics_page &) = delete;
    metrics_page &operator=(const metrics_page &) = delete;

    // Takes a millisecond or so with thousands of sessions. False: the page is complete.
    bool step();
    const std::string &text() const { return text_; }

  private:
    struct sample;

    void take_sample(const std::string &name);
    void add_metric(std::size_t number);
    void add_states();
    void add_sessions();
    void add_namespaces();
    void add_agent();

    const agent &agent_;
    last_reload reload_;
    std::vector<std::string> names_;
    std::vector<sample> samples_;
    std::size_t sampled_ = 0; // names
    std::size_t written_ = 0; // metrics
    std::string text_;
};

} // namespace kelm_agent
