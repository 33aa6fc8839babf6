// SPDX-License-Identifier: GPL-2.0
//
// What prevents a namespace from being served: another program has a port or the agents' socket, or
// the system refuses something.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

struct net;

namespace kelmd
{

struct obstacle {
    enum kind { none, agent_socket_taken, port_taken, other };

    kind what = none;
    std::uint16_t port = 0; // of port_taken
    const char *call = "";  // of other
    int error = 0;          // errno

    bool operator==(const obstacle &) const = default;
};

// The socket inode in a line of /proc/net/udp or udp6 with this local port.
[[nodiscard]] std::optional<ino_t> parse_udp_owner(std::string_view table, std::uint16_t port);

// Whether the namespace's obstacle is gone by now; for kinds that cannot be checked, true: try.
[[nodiscard]] bool is_cleared(const net &ns);

// What it is, who is behind it if that can be known, and what to do: one line.
[[nodiscard]] std::string explain(const net &ns, const obstacle &met);

} // namespace kelmd
