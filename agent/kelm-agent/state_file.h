// SPDX-License-Identifier: GPL-2.0
//
// What an agent leaves to its successor: which discriminators are its own, and what the dump of
// kelm does not tell. Without the file a restart still finds its sessions by their packets'
// addresses.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

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

// Sessions in kelm that nobody wants any more.
struct orphan {
    std::string netns;
    std::uint32_t discriminator = 0;
    bool operator==(const orphan &) const = default;
};

struct saved_state {
    std::map<std::string, saved_session> sessions; // by name
    std::vector<orphan> orphans;
};

// An empty state if there is no file. Throws std::runtime_error if it cannot be read, or makes no
// sense.
saved_state load_state(const std::string &path);

// In one step: a reader, or a successor, sees the old file or the new one. Throws
// std::runtime_error.
void save_state(const std::string &path, const saved_state &);

} // namespace kelm_agent
