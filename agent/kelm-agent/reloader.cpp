// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/reloader.h"

#include <systemd/sd-daemon.h>

namespace kelm_agent
{

agent_config load_config_with_log(const std::string &file, const logger &log)
{
    std::vector<std::string> warnings;
    agent_config config = load_config(file, warnings);
    for (const auto &each : warnings)
        log.warning(each);
    return config;
}

void reloader::reload(const outcome &done)
{
    sd_notify(0, "RELOADING=1");
    try {
        const agent_config config = load_config_with_log(file_, log_);
        metrics_.configure(config);
        metrics_.note_reload(true);
        waiting_.push_back(done);
        running_.reconfigure(config, [this] { end(); });
    } catch (const std::exception &problem) {
        log_.error(std::string("configuration not changed: ") + problem.what());
        metrics_.note_reload(false);
        sd_notify(0, "READY=1");
        done(problem.what());
    }
}

void reloader::end()
{
    log_.info("configuration reloaded");
    sd_notify(0, "READY=1");
    for (const auto &each : std::exchange(waiting_, {}))
        each("");
}

} // namespace kelm_agent
