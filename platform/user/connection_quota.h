// SPDX-License-Identifier: GPL-2.0
//
// How many agents' connections there may be: enough for the tools of every user, too few for users
// other than root to use up kelmd's descriptors. Any thread.
#pragma once

#include <map>
#include <optional>
#include <sys/types.h>
#include <utility>

#include "platform/hosted/mutex.h"

namespace kelmd
{

class connection_quota
{
  public:
    static constexpr int limit_per_user = 32; // root has no limit
    static constexpr int limit_of_users = 256;

    // One connection's place, given back at the end of its life.
    class place
    {
      public:
        place(place &&other) noexcept
            : quota_(std::exchange(other.quota_, nullptr)), user_(other.user_)
        {
        }
        place &operator=(place &&) = delete;
        ~place();

      private:
        friend class connection_quota;
        place(connection_quota *quota, uid_t user) : quota_(quota), user_(user) {}

        connection_quota *quota_; // null for root
        uid_t user_;
    };

    // Nothing if the user has as many as it may. The quota must outlive the place.
    [[nodiscard]] std::optional<place> take(uid_t user);

  private:
    hosted::mutex mutex_;
    std::map<uid_t, int> used_;
    int total_ = 0;
};

} // namespace kelmd
