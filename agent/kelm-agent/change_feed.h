// SPDX-License-Identifier: GPL-2.0
//
// Tells of the sessions' changes of state as they happen.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "kelm-agent/session_driver.h"

namespace kelm_agent
{

class change_feed
{
  public:
    // Must not take long: the session waits.
    using subscriber = std::function<void(const session_driver &, const change &)>;
    // Subscribed for as long as it lives; it may end while it is told of a change.
    using subscription = std::shared_ptr<subscriber>;

    [[nodiscard]] subscription subscribe(subscriber);
    void tell(const session_driver &, const change &);

  private:
    std::vector<std::weak_ptr<subscriber>> subscribers_;
};

} // namespace kelm_agent
