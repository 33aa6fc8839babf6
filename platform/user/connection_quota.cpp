// SPDX-License-Identifier: GPL-2.0
#include "platform/user/connection_quota.h"

#include <mutex>

namespace kelmd
{

std::optional<connection_quota::place> connection_quota::take(uid_t user)
{
    if (user == 0)
        return place(nullptr, user);
    const std::lock_guard held(mutex_);
    if (total_ >= limit_of_users)
        return std::nullopt;
    int &used = used_[user];
    if (used >= limit_per_user)
        return std::nullopt;
    ++used;
    ++total_;
    return place(this, user);
}

connection_quota::place::~place()
{
    if (quota_ == nullptr)
        return;
    const std::lock_guard held(quota_->mutex_);
    --quota_->total_;
    const auto used = quota_->used_.find(user_);
    if (--used->second == 0)
        quota_->used_.erase(used);
}

} // namespace kelmd
