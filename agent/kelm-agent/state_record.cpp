// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/state_record.h"

#include <ctime>
#include <utility>

namespace kelm_agent
{

namespace
{

// Writing may take one part in so many of the time, unless it is quick.
constexpr int share = 20;
constexpr std::chrono::milliseconds quick{5};

// Of the processor: a busy machine is no reason to write less.
std::chrono::microseconds time_used()
{
    return std::chrono::microseconds(std::int64_t{std::clock()} * 1'000'000 / CLOCKS_PER_SEC);
}

} // namespace

state_record::state_record(event_loop &loop, const logger &log, std::string path,
                           std::function<saved_state()> snapshot)
    : loop_(loop), log_(log), path_(std::move(path)), snapshot_(std::move(snapshot)),
      on_idle_(loop.on_idle([this] {
          is_ahead_ = false;
          write_in_time();
      }))
{
}

void state_record::change_of_state()
{
    is_changed_ = true;
    if (!std::exchange(is_ahead_, true))
        write_in_time();
}

void state_record::write_in_time()
{
    if (!is_changed_ || later_)
        return;
    const auto now = loop_.now();
    if (now >= not_before_)
        return write_now();
    later_ = loop_.after(std::chrono::ceil<std::chrono::microseconds>(not_before_ - now), [this] {
        later_ = {};
        write_in_time();
    });
}

void state_record::write_now()
{
    const auto began = time_used();
    is_changed_ = false;
    try {
        save_state(path_, snapshot_());
    } catch (const std::runtime_error &problem) {
        log_.warning("cannot save " + path_ + ": " + problem.what());
    }
    const auto took = time_used() - began;
    if (took > quick)
        not_before_ = loop_.now() + share * took;
}

} // namespace kelm_agent
