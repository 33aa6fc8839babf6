// SPDX-License-Identifier: GPL-2.0
//
// All sessions: by name, by discriminator, and by where their packets come from.
#pragma once

#include <map>
#include <unordered_map>

#include "kelm-agent/matching.h"
#include "kelm-agent/session_driver.h"

namespace kelm_agent
{

class session_set
{
  public:
    using by_name = std::map<std::string, std::unique_ptr<session_driver>>;
    using by_discriminator = std::unordered_map<std::uint32_t, std::unique_ptr<session_driver>>;

    // The name is new. A session and its echo session find each other.
    session_driver &add(std::unique_ptr<session_driver>);
    const by_name &all() const { return by_name_; }
    std::vector<std::string> names() const;
    std::size_t size() const { return by_name_.size(); }

    // Retired ones included.
    bool contains(std::uint32_t discriminator) const
    {
        return by_discriminator_.contains(discriminator) || retired_.contains(discriminator);
    }
    // Null where there is none.
    session_driver *find(const std::string &name) const;
    session_driver *find(const vrf &, std::uint32_t discriminator) const;
    session_driver *find(const vrf &, const kelm::packet_change &, const kelm::frame_info &) const;

    // Takes it out of the lookups above. It is kept until it is dropped.
    session_driver &retire(const std::string &name);
    void drop(const session_driver &retired);
    const by_discriminator &retired() const { return retired_; }
    bool is_retired(const vrf &, std::uint32_t discriminator) const;

    // RFC 5880 section 10: unpredictable. Unique here, and so is the source port that follows from
    // it, as long as there are enough; whether another agent has it only kelm knows.
    std::uint32_t new_discriminator() const;
    void change_discriminator(session_driver &, std::uint32_t discriminator);

  private:
    void enter(session_driver &);
    void forget(const session_driver &);

    by_name by_name_;
    std::unordered_map<std::uint32_t, session_driver *> by_discriminator_;
    std::unordered_multimap<kelm::ip_address, session_driver *, address_hash> by_source_;
    std::unordered_map<std::uint16_t, std::size_t> ports_; // in use, and how often
    by_discriminator retired_;                             // tell their peers, and go
};

} // namespace kelm_agent
