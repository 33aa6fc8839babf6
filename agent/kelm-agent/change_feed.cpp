// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/change_feed.h"

namespace kelm_agent
{

change_feed::subscription change_feed::subscribe(subscriber told)
{
    auto added = std::make_shared<subscriber>(std::move(told));
    subscribers_.push_back(added);
    return added;
}

void change_feed::tell(const session_driver &changed, const change &what)
{
    std::erase_if(subscribers_, [](const auto &each) { return each.expired(); });
    for (const auto &each : std::vector(subscribers_))
        if (const auto told = each.lock())
            (*told)(changed, what);
}

} // namespace kelm_agent
