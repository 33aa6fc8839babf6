// SPDX-License-Identifier: GPL-2.0
#pragma once

#include <optional>
#include <string>

#include "libkelm/report.h"
#include "shared/unique_fd.h"

namespace kelm_agent
{

// Receives the LAG packets (RFC 7130) of one member link whose Your Discriminator is 0. kelm's host
// may not know which link they arrived on.
class member_listener
{
  public:
    // Throws kelm::error.
    member_listener(const std::string &netns, std::uint32_t member_ifindex);

    int fd() const { return fd_.get(); }
    std::uint32_t member() const { return member_; }

    // The next packet as kelm would pass it up, except that its `ifindex` is the member's; nothing
    // if none is waiting. Other packets are skipped.
    std::optional<kelm::packet_change> next();

  private:
    kelm::unique_fd fd_;
    std::uint32_t member_;
};

// The packet in a received Ethernet frame, by the same rules; nothing if there is none.
std::optional<kelm::packet_change> undirected_lag_packet(kelm::byte_view frame);

} // namespace kelm_agent
