// SPDX-License-Identifier: GPL-2.0
//
// The configuration file of a running agent: read again on request.
#pragma once

#include "kelm-agent/config.h"
#include "kelm-agent/metrics.h"

namespace kelm_agent
{

class reloader
{
  public:
    // Told what is wrong with the file, or nothing when its sessions run.
    using outcome = std::function<void(const std::string &problem)>;

    reloader(std::string file, const logger &log, agent &running, metrics_exporter &metrics)
        : file_(std::move(file)), log_(log), running_(running), metrics_(metrics)
    {
    }

    // An invalid configuration changes nothing. Of several requests at once, all hear the outcome
    // of the last.
    void reload(const outcome &);

  private:
    void end(const std::string &problem);

    std::string file_;
    const logger &log_;
    agent &running_;
    metrics_exporter &metrics_;
    std::vector<outcome> waiting_;
};

// Logs the file's warnings. Throws like load_config.
agent_config load_config_with_log(const std::string &file, const logger &);

} // namespace kelm_agent
