// SPDX-License-Identifier: GPL-2.0
//
// The softirq thread: receives, and runs timers.
#pragma once

#include <cstddef>

namespace kelmd
{

// Something that the softirq thread receives from.
class receiver
{
  public:
    virtual ~receiver() = default;

    [[nodiscard]] virtual int receive_fd() const = 0;

    // Handles what is queued until nothing is, or a bound of its own is reached.
    virtual void drain() = 0;
};

// Starts the thread; realtime puts it under SCHED_FIFO, or says in the log that it
// may not. Throws std::system_error.
void start_softirq(bool realtime);

// Ends the thread. Nothing is received and no timer runs afterwards.
void stop_softirq();

// Begins to receive. Any task. 0 or a negative error number.
[[nodiscard]] int add_receiver(receiver &source);

// Returns once the receiver is not draining and will not drain again. Any task. Harmless if it
// was never added.
void remove_receiver(receiver &source);

} // namespace kelmd
