// SPDX-License-Identifier: GPL-2.0
#ifndef LIBKELM_INTERFACES_H
#define LIBKELM_INTERFACES_H

#include <optional>
#include <string>

#include "libkelm/address.h"
#include "libkelm/fd.h"

namespace kelm
{

// The network interfaces of one network namespace (see in_netns).
class interfaces
{
  public:
    explicit interfaces(const std::string &netns = {});

    std::optional<uint32_t> index(const std::string &name) const;
    // "if7" for an index that has no interface (any more).
    std::string name(uint32_t index) const;
    std::optional<mac_address> mac(const std::string &name) const; // of an Ethernet interface

  private:
    unique_fd socket_;
};

} // namespace kelm

#endif
