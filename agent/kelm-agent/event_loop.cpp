// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/event_loop.h"

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

struct event_loop::handle::source {
    event_loop &loop;
    callback work;
    sd_event_source *event = nullptr;

    // The callback may end its own handle: what runs is a copy.
    int run()
    {
        event_loop &owner = loop;
        try {
            const callback running = work;
            running();
            return 0;
        } catch (...) {
            owner.failure_ = std::current_exception();
            return sd_event_exit(owner.loop_.get(), EXIT_FAILURE);
        }
    }

    static int run(void *userdata) { return static_cast<source *>(userdata)->run(); }
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
};

void event_loop::handle::end::operator()(source *ended) const
{
    sd_event_source_disable_unref(ended->event);
    delete ended;
}

event_loop::event_loop()
{
    sd_event *made = nullptr;
    check(sd_event_new(&made), "cannot make an event loop");
    loop_.reset(made);
}

event_loop::handle event_loop::make(callback work)
{
    handle made;
    made.source_.reset(new handle::source{*this, std::move(work)});
    return made;
}

event_loop::handle event_loop::on_io(int fd, std::uint32_t events, callback work)
{
    handle made = make(std::move(work));
    check(sd_event_add_io(loop_.get(), &made.source_->event, fd, events, handle::source::on_io,
                          made.source_.get()),
          "cannot watch a descriptor");
    return made;
}

event_loop::handle event_loop::after(std::chrono::microseconds delay, callback work)
{
    handle made = make(std::move(work));
    constexpr std::uint64_t accuracy_us = 1000;
    check(sd_event_add_time_relative(loop_.get(), &made.source_->event, CLOCK_MONOTONIC,
                                     static_cast<std::uint64_t>(delay.count()), accuracy_us,
                                     handle::source::on_time, made.source_.get()),
          "cannot set a timer");
    return made;
}

event_loop::handle event_loop::on_signal(int signal, callback work)
{
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, signal);
    check(-pthread_sigmask(SIG_BLOCK, &mask, nullptr), "cannot block a signal");
    handle made = make(std::move(work));
    check(sd_event_add_signal(loop_.get(), &made.source_->event, signal, handle::source::on_signal,
                              made.source_.get()),
          "cannot watch a signal");
    return made;
}

event_loop::handle event_loop::on_idle(callback work)
{
    handle made = make(std::move(work));
    check(sd_event_add_post(loop_.get(), &made.source_->event, handle::source::on_turn,
                            made.source_.get()),
          "cannot watch the event loop");
    return made;
}

void event_loop::run()
{
    const int result = sd_event_loop(loop_.get());
    if (failure_)
        std::rethrow_exception(std::exchange(failure_, nullptr));
    check(result, "cannot wait for events");
}

void event_loop::stop()
{
    check(sd_event_exit(loop_.get(), EXIT_SUCCESS), "cannot end the event loop");
}

} // namespace kelm_agent
