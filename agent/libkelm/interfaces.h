// SPDX-License-Identifier: GPL-2.0
#pragma once

#include <optional>
#include <string>

#include "libkelm/address.h"
#include "shared/unique_fd.h"

namespace kelm
{

// The network interfaces of one network namespace (see in_netns).
class interfaces
{
  public:
    // Throws error where the namespace cannot be entered.
    explicit interfaces(const std::string &netns = {});

    // Nothing where there is no such interface.
    std::optional<std::uint32_t> index(const std::string &name) const;
    // "if7" for an index that has no interface (any more).
    std::string name(std::uint32_t index) const;
    // Nothing where there is no such interface, or one that is not Ethernet's.
    std::optional<mac_address> mac(const std::string &name) const;

  private:
    unique_fd socket_;
};

} // namespace kelm
