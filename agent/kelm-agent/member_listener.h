// SPDX-License-Identifier: GPL-2.0
#pragma once

#include <optional>
#include <string>

#include "libkelm/fd.h"
#include "libkelm/report.h"

namespace kelm_agent
{

// Hears the LAG packets (RFC 7130) of one member link that name no session yet: which link they
// came over, kelm's host may not be able to tell.
class member_listener
{
  public:
    // Throws kelm::error.
    member_listener(const std::string &netns, std::uint32_t member_ifindex);

    int fd() const { return fd_.get(); }
    std::uint32_t member() const { return member_; }

    // The next of them as kelm would pass it up, but for its `ifindex`, which is the member's;
    // nothing when there is none at the moment. What is no such packet is passed over.
    std::optional<kelm::packet_change> next();

  private:
    kelm::unique_fd fd_;
    std::uint32_t member_;
};

// The packet in a received Ethernet frame, by the same rules; nothing if it is none.
std::optional<kelm::packet_change> undirected_lag_packet(kelm::byte_view frame);

} // namespace kelm_agent
