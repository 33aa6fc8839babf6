// SPDX-License-Identifier: GPL-2.0
//
// What the agent's next run needs to know: which discriminators are its own, and what kelm's dump
// does not contain. Without the file, a restarted agent recognises sessions by their packets'
// addresses.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>

#include "kelm-agent/history.h"
#include "kelm-agent/model.h"

namespace kelm_agent
{

struct saved_session {
    std::string identity; // identity_text() of its configuration
    std::string netns;
    std::uint32_t discriminator = 0;
    std::uint8_t state = BFD_STATE_DOWN;
    bool admin_down = false; // by kelmctl
    intervals in_effect;
    history past; // without the changes
};

// A session of ours in kelm that is no longer configured.
struct orphan {
    std::string netns;
    std::uint32_t discriminator = 0;
    auto operator<=>(const orphan &) const = default; // NOLINT(modernize-use-nullptr)
};

struct saved_state {
    std::map<std::string, saved_session> sessions; // by name
    std::set<orphan> orphans;
};

// An empty state if there is no file. Throws std::runtime_error if it cannot be read or is
// damaged.
saved_state load_state(const std::string &path);

// Replaces the file atomically. Throws std::runtime_error.
void save_state(const std::string &path, const saved_state &);

} // namespace kelm_agent
