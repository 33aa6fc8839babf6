// SPDX-License-Identifier: GPL-2.0
#include "platform/user/log.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <poll.h>
#include <unistd.h>
#include <utility>

#include "platform/user/host.h"
#include "platform/user/thread.h"

namespace kelmd
{

namespace
{

// Ends a write that a stopped reader holds up; see log_ring::stop.
constexpr int wake_signal = SIGUSR1;

constexpr std::size_t write_size = 16384;

void append_time(std::string &out, const timespec &time)
{
    tm utc{};
    gmtime_r(&time.tv_sec, &utc);
    std::array<char, 40> text{};
    const std::size_t len = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &utc);
    out.append(text.data(), len);
    std::snprintf(text.data(), text.size(), ".%06ldZ ", time.tv_nsec / 1000);
    out.append(text.data());
}

} // namespace

log_ring::log_ring(int fd, std::size_t capacity) : fd_(fd), lines_(capacity)
{
    sem_init(&work_, 0, 0);
}

log_ring::~log_ring()
{
    stop(std::chrono::seconds(1));
    sem_destroy(&work_);
}

void log_ring::start()
{
    struct sigaction nothing {
    };
    nothing.sa_handler = [](int) {}; // and no SA_RESTART
    sigaction(wake_signal, &nothing, nullptr);
    thread_ = start_thread("kelmd-log", [this] { run(); });
}

void log_ring::stop(std::chrono::milliseconds patience)
{
    if (!thread_.joinable())
        return;
    stopping_ = true;
    sem_post(&work_);
    const auto ended = ended_.get_future();
    while (ended.wait_for(patience) != std::future_status::ready) {
        // The signal may hit just before the write begins, so it is repeated.
        given_up_ = true;
        pthread_kill(thread_.native_handle(), wake_signal);
        patience = std::chrono::milliseconds(10);
    }
    thread_.join();
}

void log_ring::append(std::string_view text)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);

    const std::lock_guard guard(mutex_);
    if (count_ == lines_.size()) {
        ++dropped_;
        return;
    }
    line &free_line = lines_[(first_ + count_) % lines_.size()];
    free_line.time = now;
    free_line.len = std::min(text.size(), max_line);
    std::memcpy(free_line.text.data(), text.data(), free_line.len);
    if (++count_ == 1)
        sem_post(&work_); // unlike a condition variable, this takes no lock of a lesser thread
}

void log_ring::run()
{
    sigset_t wake;
    sigemptyset(&wake);
    sigaddset(&wake, wake_signal);
    pthread_sigmask(SIG_UNBLOCK, &wake, nullptr);

    std::string out;
    do {
        while (sem_wait(&work_) != 0) {
        }
        for (take_lines(out); !out.empty() && !given_up_; take_lines(out)) {
            write_out(out);
            out.clear();
        }
    } while (!stopping_);
    ended_.set_value();
}

// Takes the oldest line out of the ring; after the last, a line with the number of dropped ones.
// False if there is none.
bool log_ring::take_line(line &oldest)
{
    std::uint64_t dropped = 0;
    {
        const std::lock_guard guard(mutex_);
        if (count_ != 0) {
            oldest = lines_[first_];
            first_ = (first_ + 1) % lines_.size();
            --count_;
            return true;
        }
        dropped = std::exchange(dropped_, 0);
    }
    if (dropped == 0)
        return false;
    clock_gettime(CLOCK_REALTIME, &oldest.time);
    const std::string text =
        "kelmd: " + std::to_string(dropped) + " log lines dropped here (reader too slow)";
    oldest.len = text.copy(oldest.text.data(), oldest.text.size());
    return true;
}

// Moves lines out of the ring, as many as make one write. They are formatted without the lock,
// which the softirq thread takes too.
void log_ring::take_lines(std::string &out)
{
    line next;
    while (out.size() < write_size && take_line(next)) {
        append_time(out, next.time);
        out.append(next.text.data(), next.len);
        out.push_back('\n');
    }
}

void log_ring::write_out(std::string_view out)
{
    while (!out.empty() && !given_up_) {
        const ssize_t written = ::write(fd_, out.data(), out.size());
        if (written >= 0) {
            out.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno == EAGAIN) { // another process made it non-blocking
            pollfd ready{.fd = fd_, .events = POLLOUT, .revents = 0};
            ::poll(&ready, 1, 100);
        } else if (errno != EINTR) {
            return; // it has no reader
        }
    }
}

void log_line(const char *fmt, ...)
{
    std::array<char, 1000> text{};
    va_list arguments;
    va_start(arguments, fmt);
    std::vsnprintf(text.data(), text.size(), fmt, arguments);
    va_end(arguments);
    the_host().log.append(std::string("kelmd: ") + text.data());
}

} // namespace kelmd
