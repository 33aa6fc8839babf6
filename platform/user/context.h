// SPDX-License-Identifier: GPL-2.0
//
// What the calling thread may do at this moment: whether it is the softirq thread, and which
// ranks of spinlocks it holds. Kept per thread; checked in debug and sanitizer builds only,
// where a breach ends the process with a line that names it.
#pragma once

namespace kelmd
{

#ifdef KELM_CHECK_CONTEXT
inline constexpr bool check_context = true;
#else
inline constexpr bool check_context = false;
#endif

struct thread_context {
    bool softirq = false;
    unsigned int held_ranks = 0; // bit r: a spinlock of rank r is held
};

inline thread_local thread_context this_context;

// Ends the process with "kelmd: " and the text.
[[noreturn, gnu::format(printf, 1, 2)]] void context_violated(const char *fmt, ...);

// For services that need task context without a spinlock.
inline void assert_may_sleep(const char *service)
{
    if constexpr (check_context) {
        if (this_context.softirq || this_context.held_ranks != 0)
            context_violated("%s called in %s (held ranks %#x)", service,
                             this_context.softirq ? "softirq context" : "a task that holds a lock",
                             this_context.held_ranks);
    }
}

} // namespace kelmd
