// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/system_event_loop.h"

#include <csignal>
#include <utility>

#include "libkelm/error.h"

namespace kelm_agent
{

namespace
{

void check(int result, const char *what)
{
    if (result < 0)
        kelm::throw_errno(-result, what);
}

} // namespace

class system_event_loop::sd_source : public event_loop::source
{
  public:
    sd_source(system_event_loop &loop, callback work) : loop_(loop), work_(std::move(work)) {}
    sd_source(const sd_source &) = delete;
    sd_source &operator=(const sd_source &) = delete;
    ~sd_source() override { sd_event_source_disable_unref(event); }

    static int on_io(sd_event_source *, int, std::uint32_t, void *userdata)
    {
        return run(userdata);
    }
    static int on_time(sd_event_source *, std::uint64_t, void *userdata) { return run(userdata); }
    static int on_signal(sd_event_source *, const signalfd_siginfo *, void *userdata)
    {
        return run(userdata);
    }
    static int on_turn(sd_event_source *, void *userdata) { return run(userdata); }

    sd_event_source *event = nullptr;

  private:
    // The callback may end its own handle: what runs is a copy.
    static int run(void *userdata)
    {
        auto &self = *static_cast<sd_source *>(userdata);
        system_event_loop &loop = self.loop_;
        try {
            const callback running = self.work_;
            running();
            return 0;
        } catch (...) {
            loop.failure_ = std::current_exception();
            return sd_event_exit(loop.loop_.get(), EXIT_FAILURE);
        }
    }

    system_event_loop &loop_;
    callback work_;
};

system_event_loop::system_event_loop()
{
    sd_event *made = nullptr;
    check(sd_event_new(&made), "cannot make an event loop");
    loop_.reset(made);
}

event_loop::handle system_event_loop::on_io(int fd, std::uint32_t events, callback work, turn when)
{
    auto made = std::make_unique<sd_source>(*this, std::move(work));
    check(sd_event_add_io(loop_.get(), &made->event, fd, events, sd_source::on_io, made.get()),
          "cannot watch a descriptor");
    if (when == turn::first)
        check(sd_event_source_set_priority(made->event, SD_EVENT_PRIORITY_IMPORTANT),
              "cannot prefer a descriptor");
    return made;
}

event_loop::handle system_event_loop::after(std::chrono::microseconds delay, callback work)
{
    constexpr std::uint64_t accuracy_us = 1000;
    auto made = std::make_unique<sd_source>(*this, std::move(work));
    check(sd_event_add_time_relative(loop_.get(), &made->event, CLOCK_MONOTONIC,
                                     static_cast<std::uint64_t>(delay.count()), accuracy_us,
                                     sd_source::on_time, made.get()),
          "cannot set a timer");
    return made;
}

event_loop::handle system_event_loop::soon(callback work)
{
    auto made = std::make_unique<sd_source>(*this, std::move(work));
    check(sd_event_add_defer(loop_.get(), &made->event, sd_source::on_turn, made.get()),
          "cannot defer work");
    return made;
}

event_loop::handle system_event_loop::on_signal(int signal, callback work)
{
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, signal);
    check(-pthread_sigmask(SIG_BLOCK, &mask, nullptr), "cannot block a signal");
    auto made = std::make_unique<sd_source>(*this, std::move(work));
    check(sd_event_add_signal(loop_.get(), &made->event, signal, sd_source::on_signal, made.get()),
          "cannot watch a signal");
    check(sd_event_source_set_priority(made->event, SD_EVENT_PRIORITY_IMPORTANT - 1),
          "cannot prefer a signal");
    return made;
}

event_loop::handle system_event_loop::on_idle(callback work)
{
    auto made = std::make_unique<sd_source>(*this, std::move(work));
    check(sd_event_add_post(loop_.get(), &made->event, sd_source::on_turn, made.get()),
          "cannot watch the event loop");
    return made;
}

void system_event_loop::run()
{
    const int result = ::sd_event_loop(loop_.get());
    if (failure_)
        std::rethrow_exception(std::exchange(failure_, nullptr));
    check(result, "cannot wait for events");
}

void system_event_loop::stop()
{
    check(sd_event_exit(loop_.get(), EXIT_SUCCESS), "cannot end the event loop");
}

} // namespace kelm_agent
