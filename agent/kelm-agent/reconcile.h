// SPDX-License-Identifier: GPL-2.0
//
// What kelm's dump says is there, and what a restarted agent makes of it.
#pragma once

#include <unordered_map>

#include "kelm-agent/matching.h"
#include "kelm-agent/session.h"
#include "kelm-agent/state_file.h"
#include "libkelm/report.h"

namespace kelm_agent
{

// What kelm has for one discriminator.
struct kelm_entry {
    bool has_packet = false;
    bool has_session = false;
    bool timer_active = false;
    std::optional<kelm::packet_change> frame; // that the session passed up last
};

class inventory
{
  public:
    // One record of a sync dump; a later one of the same kind is newer.
    void add(const kelm::report &);

    // Of a discriminator that kelm does not have, an empty entry.
    const kelm_entry &at(std::uint32_t discriminator) const;
    bool contains(std::uint32_t discriminator) const { return entries_.contains(discriminator); }
    const std::unordered_map<std::uint32_t, kelm_entry> &entries() const { return entries_; }

    // The session of this configuration by its last packet's addresses, when there is no record of
    // ours.
    std::optional<std::uint32_t> recognise(const session_config &, const addressing &) const;

  private:
    std::unordered_map<std::uint32_t, kelm_entry> entries_;
    // By what the last packet came from.
    std::unordered_multimap<kelm::ip_address, std::uint32_t, address_hash> heard_from_;
};

// `saved` may be null.
remains remains_of(const kelm_entry &, const saved_session *saved);

} // namespace kelm_agent
