// SPDX-License-Identifier: GPL-2.0
//
// The log: lines go into a bounded ring, and a thread writes them to a file descriptor with a time
// stamp in front. No thread that logs ever waits for the reader at the other end; lines that find
// the ring full are counted, and the count is logged as soon as there is room again.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <future>
#include <semaphore.h>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/hosted/mutex.h"

namespace kelmd
{

class log_ring
{
  public:
    // A line is cut to this many bytes.
    static constexpr std::size_t max_line = 500;

    // Holds capacity lines; writes to fd, which stays the caller's.
    log_ring(int fd, std::size_t capacity);
    ~log_ring();
    log_ring(const log_ring &) = delete;
    log_ring &operator=(const log_ring &) = delete;

    void start();

    // Writes what is in the ring and ends the thread, if it runs. When the reader takes nothing
    // for that long, the rest of the lines is dropped.
    void stop(std::chrono::milliseconds patience);

    // Appends one line. Any thread.
    void append(std::string_view text);

  private:
    struct line {
        timespec time;
        std::size_t len;
        std::array<char, max_line> text;
    };

    void run();
    bool take_line(line &oldest);
    void take_lines(std::string &out);
    void write_out(std::string_view out);

    const int fd_;
    hosted::mutex mutex_;     // guards the ring
    std::vector<line> lines_; // the ring
    std::size_t first_ = 0;
    std::size_t count_ = 0;
    std::uint64_t dropped_ = 0;

    sem_t work_; // posted when the ring stops being empty, and to stop
    std::atomic<bool> stopping_ = false;
    std::atomic<bool> given_up_ = false;
    std::promise<void> ended_;
    std::thread thread_;
};

// A line of kelmd's own in the host's log: "kelmd: " and the text. Any thread.
[[gnu::format(printf, 1, 2)]] void log_line(const char *fmt, ...);

} // namespace kelmd
