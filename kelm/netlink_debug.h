// SPDX-License-Identifier: GPL-2.0
//
// Debug levels, and the decision whether a line is logged. log.h has the lines themselves.
#pragma once

#include <atomic>
#include <cstdint>

#include "kelm/relaxed.h"
#include "platform/spinlock.h"

struct kelm_vrf;
struct nlmsghdr;
struct sk_buff;

struct kelm_debug_config {
    std::atomic<std::int32_t> count; // levels of single sessions in force
    relaxed<std::uint8_t> global_level;
    spinlock_t lock; // guards the sessions' levels; innermost of all locks
};
extern kelm_debug_config kelm_debugs;

// Module load: global level 1, no level for any session.
void debug_init();

// Whether the level set for this session alone reaches target_level. Any context, any lock held.
[[nodiscard]] bool session_level_reaches(std::uint32_t discriminator, std::uint8_t target_level);

[[nodiscard]] inline bool should_log_global(std::uint8_t target_level)
{
    return kelm_debugs.global_level >= target_level;
}

// Whether a line about a session is printed: its own level can only add to the global one.
// Any context, any lock held; cheap while no session has a level of its own.
[[nodiscard]] inline bool should_log(std::uint32_t discriminator, std::uint8_t target_level)
{
    return should_log_global(target_level) ||
           (kelm_debugs.count.load(std::memory_order_relaxed) > 0 &&
            session_level_reaches(discriminator, target_level));
}

// The handler of KELM_MSG_SET_DEBUG_LEVEL, see handler_fn.
int set_debug_level(kelm_vrf *vrf, sk_buff *skb, const nlmsghdr *hdr);
