// SPDX-License-Identifier: GPL-2.0
//
// Metrics for Prometheus. Every session has all of its series in every state.
#pragma once

#include "kelm-agent/agent.h"

namespace kelm_agent
{

// One page in the text exposition format, made step by step; counters as kelm has told them last.
class metrics_page
{
  public:
    // The agent outlives the page.
    explicit metrics_page(const agent &);
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
    void add_counters();

    const agent &agent_;
    std::vector<std::string> names_;
    std::vector<sample> samples_;
    std::size_t sampled_ = 0; // names
    std::size_t written_ = 0; // metrics
    std::string text_;
};

} // namespace kelm_agent
