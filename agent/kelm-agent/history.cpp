// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/history.h"

namespace kelm_agent
{

namespace
{

constexpr std::size_t most_changes = 64; // the oldest go first

} // namespace

void history::add(change latest)
{
    if (latest.from != latest.to) {
        since = latest.when;
        if (latest.to == BFD_STATE_UP)
            ++up_count;
        if (latest.from == BFD_STATE_UP) {
            ++down_count;
            last_down = latest.when;
            last_down_diag = latest.diag;
            last_down_reason = latest.reason;
        }
    }
    changes_.push_back(std::move(latest));
    if (changes_.size() > most_changes)
        changes_.pop_front();
}

} // namespace kelm_agent
