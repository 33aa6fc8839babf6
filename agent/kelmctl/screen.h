// SPDX-License-Identifier: GPL-2.0
//
// The terminal, while a program fills it: the alternate screen, and keys without Enter.
#pragma once

#include <chrono>
#include <utility>

#include "kelmctl/top_view.h"

namespace kelmctl
{

// However the program ends, but for SIGKILL, the terminal is as it was before; while it is
// stopped too. There can be one at a time.
class screen
{
  public:
    screen(); // the standard output must be a terminal
    ~screen();
    screen(const screen &) = delete;
    screen &operator=(const screen &) = delete;

    // Columns and rows.
    std::pair<std::size_t, std::size_t> size() const;

    // Throws kelm::error when the terminal is gone.
    void draw(const std::vector<top_line> &);

    enum class event { time_is_up, redraw, refresh, quit };

    // Waits for a key, a change of the terminal, or this long.
    event wait(std::chrono::milliseconds) const;
};

} // namespace kelmctl
