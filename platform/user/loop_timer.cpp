// SPDX-License-Identifier: GPL-2.0
#include "platform/user/loop_timer.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>

#include "platform/user/system_call.h"

namespace kelmd
{

loop_timer::loop_timer(event_loop &loop, std::function<void()> handler)
    : loop_(loop),
      timer_(checked("timerfd_create", timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)))
{
    loop_.watch(timer_.get(), EPOLLIN, [this, handler = std::move(handler)](std::uint32_t) {
        std::uint64_t expirations = 0;
        if (::read(timer_.get(), &expirations, sizeof expirations) > 0)
            handler();
    });
}

loop_timer::~loop_timer()
{
    loop_.unwatch(timer_.get());
}

void loop_timer::arm(std::chrono::milliseconds delay)
{
    itimerspec when{};
    when.it_value.tv_sec = delay.count() / 1000;
    when.it_value.tv_nsec = delay.count() % 1000 * 1'000'000;
    timerfd_settime(timer_.get(), 0, &when, nullptr);
}

} // namespace kelmd
