// SPDX-License-Identifier: GPL-2.0
//
// Log lines.
//
// Levels: 1 failures of set-up and allocation; 2 configuration, errors of sends, progress of
// dumps; 3 every message and packet.
#pragma once

#include "kelm/netlink_debug.h"
#include "platform/printk.h"

// "kelm <component>: <text>", by the global level alone.
#define KELM_LOG(component, level, text, ...)                                                      \
    do {                                                                                           \
        if (should_log_global(level))                                                              \
            printk(KERN_INFO "kelm %s: " text "\n", component __VA_OPT__(, ) __VA_ARGS__);         \
    } while (0)

// "kelm <component> (<discriminator>): <text>", by the session's level too.
#define KELM_LOG_SESSION(component, discriminator, level, text, ...)                               \
    do {                                                                                           \
        if (should_log(discriminator, level))                                                      \
            printk(KERN_INFO "kelm %s (%u): " text "\n", component,                                \
                   discriminator __VA_OPT__(, ) __VA_ARGS__);                                      \
    } while (0)

#define netlink_log(level, ...) KELM_LOG("Netlink", level, __VA_ARGS__)
#define netlink_log_session(discriminator, level, ...)                                             \
    KELM_LOG_SESSION("Netlink", discriminator, level, __VA_ARGS__)
#define rx_log(discriminator, level, ...) KELM_LOG_SESSION("Rx", discriminator, level, __VA_ARGS__)
#define tx_log(discriminator, level, ...) KELM_LOG_SESSION("Tx", discriminator, level, __VA_ARGS__)
