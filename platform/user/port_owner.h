// SPDX-License-Identifier: GPL-2.0
//
// What stands in the way of serving a namespace: who holds a port or the agent socket there.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

#include "platform/user/net.h"

namespace kelmd
{

// The socket inode of a line of /proc/net/udp or udp6 whose local port this is.
[[nodiscard]] std::optional<ino_t> parse_udp_owner(std::string_view table, std::uint16_t port);

// Whether the obstacle is gone by now; for kinds that cannot be looked at, true: try.
[[nodiscard]] bool is_cleared(const net &ns, const obstacle &met);

// What is in the way, who holds it if that can be known, and what to do: one line.
[[nodiscard]] std::string explain(const net &ns, const obstacle &met);

} // namespace kelmd
