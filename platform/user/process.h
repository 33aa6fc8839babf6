// SPDX-License-Identifier: GPL-2.0
//
// Other processes, as /proc shows them.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <sys/types.h>

#include "platform/user/netns_key.h"

namespace kelmd
{

// The process behind something that happened on a socket. Process numbers are reused; start time
// and user tell apart processes with the same number.
struct peer_process {
    pid_t pid = 0;                // 0: one that cannot be seen from here
    uid_t uid = 0;                // as the socket gave it
    std::uint64_t start_time = 0; // clock ticks since boot; 0: it was gone already

    bool operator==(const peer_process &) const = default;
};

// What kelmd needs of /proc/PID/status.
struct process_status {
    uid_t effective_uid;
    std::uint64_t effective_capabilities; // one bit each
};

[[nodiscard]] std::optional<process_status> parse_status(std::string_view text);

// The start time from /proc/PID/stat.
[[nodiscard]] std::optional<std::uint64_t> parse_start_time(std::string_view text);

// Whether the kernel started the program with more privilege than its caller had (AT_SECURE), from
// /proc/PID/auxv. True if it cannot be read.
[[nodiscard]] bool parse_secure(std::string_view auxv);

// Records a process by its number while that is known to be the right one.
[[nodiscard]] peer_process identify(pid_t pid, uid_t uid);

// The effective capabilities of that process in our own user namespace, one bit each. None if it
// is no longer that process, or no longer has that user's privilege: since it used the socket it
// may have become a program with more privilege (su, for example), which does not count for the
// request.
[[nodiscard]] std::uint64_t capabilities_of(const peer_process &peer);

// Whether kelmd itself holds a capability.
[[nodiscard]] bool have_capability(int capability);

// Gives up all other capabilities, for the calling thread and those that it starts.
void keep_capabilities(std::span<const int> capabilities);

// "name (pid 123)".
[[nodiscard]] std::string describe_process(pid_t pid);

// The network namespaces that other processes are in, with any of their threads. Nothing if that
// cannot be known: a process that kelmd may not look at (CAP_SYS_PTRACE) may be in any of them.
[[nodiscard]] std::optional<std::set<netns_key>> inhabited_namespaces();

} // namespace kelmd
