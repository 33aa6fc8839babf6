// SPDX-License-Identifier: GPL-2.0
//
// A client of kelm in an event loop: requests that nobody waits for.
#pragma once

#include "kelm-agent/event_loop.h"
#include "libkelm/client.h"

namespace kelm_agent
{

class client_pump
{
  public:
    // `on_failure` is called when the connection has failed; the pump may be destroyed after it has
    // returned, not before.
    client_pump(event_loop &, std::unique_ptr<kelm::channel>,
                std::function<void(const std::string &why)> on_failure);

    // See kelm::client.
    void submit(kelm::request, kelm::completion);

  private:
    void run();
    void wait();

    event_loop &loop_;
    std::function<void(const std::string &)> on_failure_;
    kelm::client client_;
    short awaited_ = 0;
    event_loop::handle on_ready_;
    event_loop::handle on_deadline_;
    event_loop::handle soon_;
};

} // namespace kelm_agent
