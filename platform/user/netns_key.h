// SPDX-License-Identifier: GPL-2.0
#pragma once

#include <compare>
#include <sys/types.h>

namespace kelmd
{

// What identifies a network namespace: two names with one key are names of the same namespace.
struct netns_key {
    dev_t device;
    ino_t inode;

    auto operator<=>(const netns_key &) const = default; // NOLINT(modernize-use-nullptr)
};

} // namespace kelmd
