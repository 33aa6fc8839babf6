// SPDX-License-Identifier: GPL-2.0
//
// Keeps the state file up to date: the file says less than what is true, never more, and not later
// than a moment after it became true.
#pragma once

#include "kelm-agent/event_loop.h"
#include "kelm-agent/log.h"
#include "kelm-agent/state_file.h"

namespace kelm_agent
{

class state_record
{
  public:
    // `snapshot` is called when the file is written.
    state_record(event_loop &, const logger &, std::string path,
                 std::function<saved_state()> snapshot);

    // Written at the end of the round, or as soon as writing does not take more than its share of
    // the time.
    void change() { is_changed_ = true; }
    // Written at once for the first change of a round, before anybody can learn of it; what else
    // happens in the round, as when many sessions share a link that fails, is written in one go.
    void change_of_state();
    void write_now();

  private:
    void write_in_time();

    event_loop &loop_;
    const logger &log_;
    std::string path_;
    std::function<saved_state()> snapshot_;
    bool is_changed_ = false;
    bool is_ahead_ = false; // of the round
    event_loop::time_point not_before_;
    event_loop::handle on_idle_;
    event_loop::handle later_;
};

} // namespace kelm_agent
