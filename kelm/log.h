// SPDX-License-Identifier: GPL-2.0
//
// Log lines and the decision whether they are printed.
//
// Levels: 1 failures of set-up and allocation; 2 configuration, errors of sends, progress of
// dumps; 3 every message and packet.
#pragma once

#include <atomic>
#include <cstdint>

#include "kelm/relaxed.h"
#include "platform/printk.h"
#include "platform/spinlock.h"

struct kelm_debug_config {
    std::atomic<std::int32_t> count; // levels of single sessions in force
    relaxed<std::uint8_t> global_level;
    spinlock_t lock; // guards the sessions' levels; innermost of all locks
};
extern kelm_debug_config kelm_debugs;

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

// "kelm <component>: <text>", by the global level alone.
#define KELM_LOG(component, level, text, ...)                                                      \
    do {                                                                                           \
        if (should_log_global(level))                                                              \
            printk(KERN_INFO "kelm " component ": " text "\n" __VA_OPT__(, ) __VA_ARGS__);         \
    } while (0)

// "kelm <component> (<discriminator>): <text>", by the session's level too.
#define KELM_LOG_SESSION(component, discriminator, level, text, ...)                               \
    do {                                                                                           \
        if (should_log(discriminator, level))                                                      \
            printk(KERN_INFO "kelm " component " (%u): " text "\n",                                \
                   discriminator __VA_OPT__(, ) __VA_ARGS__);                                      \
    } while (0)
