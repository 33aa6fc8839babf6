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

    // An invalid configuration changes nothing. A valid one takes the place of an earlier one that
    // is still being put to use; who asked for that hears when the later one is in use.
    void reload(const outcome &);

  private:
    void end();

    std::string file_;
    const logger &log_;
    agent &running_;
    metrics_exporter &metrics_;
    std::vector<outcome> waiting_; // for a valid configuration to be in use
};

// Logs the file's warnings. Throws like load_config.
agent_config load_config_with_log(const std::string &file, const logger &);

} // namespace kelm_agent
