// SPDX-License-Identifier: GPL-2.0
//
// A session's changes of state.
#pragma once

#include <chrono>
#include <deque>
#include <string>

#include "kelm-agent/fsm.h"

namespace kelm_agent
{

using wall_time = std::chrono::system_clock::time_point;

struct change {
    wall_time when;
    std::uint8_t from = BFD_STATE_DOWN; // bfd_states; equal to `to` if the state did not change
    std::uint8_t to = BFD_STATE_DOWN;
    std::uint8_t diag = BFD_DIAG_NONE;
    std::string reason; // in words
};

class history
{
  public:
    void add(change);

    const std::deque<change> &changes() const { return changes_; }

    wall_time since{};                           // of the state
    std::uint64_t up_count = 0;                  // transitions to Up
    std::uint64_t down_count = 0;                // and from Up
    std::uint8_t last_down_diag = BFD_DIAG_NONE; // of the last of them
    std::string last_down_reason;
    wall_time last_down{};

  private:
    std::deque<change> changes_;
};

} // namespace kelm_agent
