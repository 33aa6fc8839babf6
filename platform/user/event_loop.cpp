// SPDX-License-Identifier: GPL-2.0
#include "platform/user/event_loop.h"

#include <array>
#include <exception>
#include <mutex>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <utility>

#include "platform/user/log.h"
#include "platform/user/system_call.h"

namespace kelmd
{

event_loop::event_loop()
    : epoll_(checked("epoll_create1", epoll_create1(EPOLL_CLOEXEC))),
      posted_event_(checked("eventfd", eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)))
{
    watch(posted_event_.get(), EPOLLIN, [this](std::uint32_t) { run_posted(); });
}

void event_loop::watch(int fd, std::uint32_t events, handler on_ready)
{
    epoll_event event{.events = events, .data = {.fd = fd}};
    checked("epoll_ctl", epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event));
    watched_[fd] = {events, std::make_shared<handler>(std::move(on_ready))};
}

void event_loop::unwatch(int fd)
{
    if (watched_.erase(fd) != 0)
        epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
}

void event_loop::rearm(int fd)
{
    epoll_event event{.events = watched_.at(fd).events, .data = {.fd = fd}};
    epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, fd, &event);
}

void event_loop::post(std::function<void()> task)
{
    {
        const std::lock_guard guard(mutex_);
        posted_.push_back(std::move(task));
    }
    eventfd_write(posted_event_.get(), 1);
}

void event_loop::run_posted()
{
    eventfd_t ignored = 0;
    eventfd_read(posted_event_.get(), &ignored);
    std::vector<std::function<void()>> tasks;
    {
        const std::lock_guard guard(mutex_);
        tasks.swap(posted_);
    }
    for (const auto &task : tasks)
        task();
}

void event_loop::stop()
{
    stopped_ = true;
    eventfd_write(posted_event_.get(), 1);
}

void event_loop::run()
{
    while (!stopped_)
        run_once(-1);
}

// The timeout is epoll_wait's.
void event_loop::run_once(int timeout)
{
    std::array<epoll_event, 64> ready;
    const int count =
        epoll_wait(epoll_.get(), ready.data(), static_cast<int>(ready.size()), timeout);
    for (int i = 0; i < count && !stopped_; ++i) {
        // An earlier handler of this round may have unwatched it, and even watched a new
        // descriptor of the same number: handlers must tolerate spurious calls.
        const auto found = watched_.find(ready[static_cast<std::size_t>(i)].data.fd);
        if (found == watched_.end())
            continue;
        const std::shared_ptr<handler> on_ready = found->second.on_ready;
        try {
            (*on_ready)(ready[static_cast<std::size_t>(i)].events);
        } catch (const std::exception &error) {
            log_line("%s", error.what()); // out of descriptors or memory: others go on
        }
    }
}

} // namespace kelmd
