// SPDX-License-Identifier: GPL-2.0
#include "platform/user/watchdog.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <systemd/sd-daemon.h>

#include "platform/clock.h"

namespace kelmd
{

namespace
{

// One check may come late without systemd losing patience.
constexpr int checks_per_timeout = 3;

} // namespace

watchdog::watchdog(event_loop &loop) : next_check_(loop, [this] { check(); })
{
    static_assert(offsetof(probe, timer) == 0);
    timer_setup(&probe_.timer,
                [](timer_list *timer) { reinterpret_cast<probe *>(timer)->fired = true; });
    std::uint64_t timeout_us = 0;
    if (sd_watchdog_enabled(0, &timeout_us) <= 0)
        return;
    interval_ = std::chrono::milliseconds(
        std::max<std::uint64_t>(timeout_us / 1000 / checks_per_timeout, 1));
    check();
}

watchdog::~watchdog()
{
    del_timer_sync(&probe_.timer);
}

void watchdog::check()
{
    if (probe_.fired.exchange(false))
        sd_notify(0, "WATCHDOG=1");
    mod_timer(&probe_.timer, get_jiffies_64());
    next_check_.arm(interval_);
}

} // namespace kelmd
