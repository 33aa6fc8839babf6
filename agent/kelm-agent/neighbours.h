// SPDX-License-Identifier: GPL-2.0
#pragma once

#include <optional>
#include <string>

#include "libkelm/address.h"
#include "shared/unique_fd.h"

namespace kelm_agent
{

// The kernel's neighbour table of one network namespace.
class neighbours
{
  public:
    // Throws kelm::error.
    explicit neighbours(const std::string &netns);

    // The Ethernet address of a neighbour. Where the kernel does not know it, it is made to ask on
    // the link, and may know it when asked again.
    std::optional<kelm::mac_address> find(std::uint32_t ifindex, const kelm::ip_address &) const;

  private:
    std::optional<kelm::mac_address> look_up(std::uint32_t ifindex, const kelm::ip_address &) const;

    kelm::unique_fd socket_;
};

} // namespace kelm_agent
