// SPDX-License-Identifier: GPL-2.0
#include "platform/user/socket_closer.h"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <mutex>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "platform/user/thread.h"

namespace kelmd
{

namespace
{

constexpr std::size_t most_waiting = 64;

// A signal ends the wait for a socket that lingers.
constexpr int wake_signal = SIGUSR2;
constexpr long longest_linger_ns = 1'000'000;

// Signals to the thread that makes it, again and again while it is impatient.
class patience
{
  public:
    patience()
    {
        sigevent event{};
        event.sigev_notify = SIGEV_THREAD_ID;
        event.sigev_signo = wake_signal;
        event._sigev_un._tid = gettid();
        if (timer_create(CLOCK_MONOTONIC, &event, &timer_) != 0)
            throw std::system_error(errno, std::generic_category(), "timer_create");
    }
    ~patience() { timer_delete(timer_); }
    patience(const patience &) = delete;
    patience &operator=(const patience &) = delete;

    void end_in(long nsecs) { set(nsecs); }
    void restore() { set(0); }

  private:
    void set(long nsecs)
    {
        const itimerspec setting{.it_interval = {0, nsecs}, .it_value = {0, nsecs}};
        timer_settime(timer_, 0, &setting, nullptr);
    }

    timer_t timer_{};
};

} // namespace

socket_closer::~socket_closer()
{
    {
        const std::lock_guard held(mutex_);
        stopping_ = true;
        changed_.wake_all();
    }
    if (thread_.joinable())
        thread_.join();
}

void socket_closer::start()
{
    struct sigaction nothing {
    };
    nothing.sa_handler = [](int) {};
    sigaction(wake_signal, &nothing, nullptr);
    thread_ = start_thread("kelmd-close", [this] { run(); });
}

void socket_closer::close(kelm::unique_fd socket, std::optional<connection_quota::place> place)
{
    const std::lock_guard held(mutex_);
    waiting_.push_back({std::move(place), std::move(socket)});
    changed_.wake_all();
}

bool socket_closer::is_behind()
{
    const std::lock_guard held(mutex_);
    return waiting_.size() > most_waiting;
}

// Waits for one. Nothing at the end.
std::optional<socket_closer::closing> socket_closer::next()
{
    std::unique_lock held(mutex_);
    changed_.wait(held, [this] { return stopping_ || !waiting_.empty(); });
    if (waiting_.empty())
        return std::nullopt;
    std::optional<closing> found(std::move(waiting_.front()));
    waiting_.pop_front();
    return found;
}

void socket_closer::run()
{
    patience left;
    while (auto one = next()) {
        left.end_in(longest_linger_ns);
        one.reset();
        left.restore();
    }
}

} // namespace kelmd
