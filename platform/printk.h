// SPDX-License-Identifier: GPL-2.0
//
// The kernel log and kernel warnings.
#pragma once

#include "platform/label.h"

// Level prefixes of a printk format, the kernel's own.
#define KERN_INFO "\0016"
#define KERN_DEBUG "\0017"

extern "C" {

// Writes to the log; fmt starts with a level prefix and brings its own line break. Any context, any
// lock held; never waits for a reader of the log. Formats: the C library's, integers, %s and %p.
[[gnu::format(printf, 1, 2)]] void printk(const char *fmt, ...) KELM_PLATFORM(printk);

// A kernel warning: a broken invariant, reported with a backtrace. Execution goes on. fmt has
// neither level prefix nor line break. Any context.
[[gnu::format(printf, 1, 2)]] void WARN(const char *fmt, ...) KELM_PLATFORM(WARN);
}
