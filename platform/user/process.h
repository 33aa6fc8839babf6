// SPDX-License-Identifier: GPL-2.0
//
// Other processes, as /proc shows them.
#pragma once

#include "platform/user/net.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace kelmd
{

// A process that stands behind something that happened on a socket. Process numbers are used
// again; the start time and the user tell another process of the same number.
struct peer_process {
    pid_t pid = 0;                // 0: one that cannot be seen from here
    uid_t uid = 0;                // real or effective, as the socket gave it
    std::uint64_t start_time = 0; // clock ticks since boot; 0: it was gone already

    bool operator==(const peer_process &) const = default;
};

// What matters of /proc/PID/status.
struct process_status {
    uid_t real_uid;
    uid_t effective_uid;
    std::uint64_t effective_capabilities; // one bit each
};

[[nodiscard]] std::optional<process_status> parse_status(std::string_view text);

// The start time from /proc/PID/stat.
[[nodiscard]] std::optional<std::uint64_t> parse_start_time(std::string_view text);

// Notes a process down by its number while it is known to be the right one.
[[nodiscard]] peer_process identify(pid_t pid, uid_t uid);

// Whether it is still that process and holds the capability in our own user namespace.
[[nodiscard]] bool holds_capability(const peer_process &peer, int capability);

// Whether kelmd itself holds a capability.
[[nodiscard]] bool have_capability(int capability);

// "name (pid 123)".
[[nodiscard]] std::string describe_process(pid_t pid);

// Whether any process, but for kelmd itself, is inside the namespace.
[[nodiscard]] bool netns_has_processes(const netns_key &key);

} // namespace kelmd
