// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/client_pump.h"

#include <algorithm>

#include "libkelm/error.h"

namespace kelm_agent
{

client_pump::client_pump(event_loop &loop, std::unique_ptr<kelm::channel> channel,
                         std::function<void(const std::string &)> on_failure)
    : loop_(loop), on_failure_(std::move(on_failure)), client_(std::move(channel))
{
    wait();
}

void client_pump::submit(kelm::request request, kelm::completion done)
{
    client_.submit(std::move(request), std::move(done));
    if (!soon_)
        soon_ = loop_.soon([this] { run(); });
}

void client_pump::run()
{
    soon_ = {};
    try {
        client_.progress();
        wait();
    } catch (const kelm::error &problem) {
        on_ready_ = {};
        on_failure_(problem.what());
    }
}

void client_pump::wait()
{
    const short wanted = client_.poll_events();
    if (wanted != awaited_) {
        on_ready_ = {}; // a descriptor is watched once
        on_ready_ =
            loop_.on_io(client_.fd(), static_cast<std::uint32_t>(wanted), [this] { run(); });
        awaited_ = wanted;
    }
    // The deadline moves with every answer; what was due at an earlier one looks again.
    const auto deadline = client_.deadline();
    if (deadline && !on_deadline_)
        on_deadline_ = loop_.after(
            std::max(std::chrono::ceil<std::chrono::microseconds>(*deadline - loop_.now()),
                     std::chrono::microseconds(0)),
            [this] {
                on_deadline_ = {};
                run();
            });
}

} // namespace kelm_agent
