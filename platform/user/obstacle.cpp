// SPDX-License-Identifier: GPL-2.0
#include "platform/user/obstacle.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <netinet/in.h>
#include <sys/socket.h>
#include <system_error>

#include "platform/user/agent_listener.h"
#include "platform/user/net.h"
#include "platform/user/process.h"
#include "shared/unique_fd.h"

namespace kelmd
{

namespace
{

template<typename Number>
std::optional<Number> number(std::string_view text, int base)
{
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc{} || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

// Takes the next word off the line.
std::string_view take_word(std::string_view &line)
{
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    const std::string_view word = line.substr(0, line.find(' '));
    line.remove_prefix(word.size());
    return word;
}

// The inode of a line, if the line is of that port.
std::optional<ino_t> owner_of_line(std::string_view line, std::uint16_t port)
{
    take_word(line); // slot
    const std::string_view local = take_word(line);
    const std::size_t colon = local.rfind(':');
    if (colon == std::string_view::npos ||
        number<std::uint16_t>(local.substr(colon + 1), 16) != port)
        return std::nullopt;
    constexpr int words_between = 7; // remote, state, queues, timer, retransmits, uid, timeout
    for (int i = 0; i < words_between; ++i)
        take_word(line);
    return number<ino_t>(take_word(line), 10);
}

std::optional<ino_t> udp_socket_inode(const net &ns, std::uint16_t port)
{
    const in_namespace inside(ns);
    if (inside.error() != 0)
        return std::nullopt;
    for (const char *path : {"/proc/thread-self/net/udp6", "/proc/thread-self/net/udp"}) {
        std::ifstream file(path);
        const std::string table(std::istreambuf_iterator<char>(file), {});
        if (const auto inode = parse_udp_owner(table, port))
            return inode;
    }
    return std::nullopt;
}

bool has_descriptor(const std::filesystem::path &process, const std::string &target)
{
    std::error_code error;
    for (std::filesystem::directory_iterator fd(process / "fd", error), end; fd != end;
         fd.increment(error)) {
        if (std::filesystem::read_symlink(fd->path(), error) == target)
            return true;
    }
    return false;
}

// A process that has the socket open, 0 if none can be seen.
pid_t socket_owner(ino_t inode)
{
    const std::string target = "socket:[" + std::to_string(inode) + "]";
    std::error_code error;
    for (std::filesystem::directory_iterator process("/proc", error), end; process != end;
         process.increment(error)) {
        const auto pid = number<pid_t>(process->path().filename().native(), 10);
        if (pid && has_descriptor(process->path(), target))
            return *pid;
    }
    return 0;
}

std::string describe_port_owner(const net &ns, std::uint16_t port)
{
    const auto inode = udp_socket_inode(ns, port);
    const pid_t pid = inode ? socket_owner(*inode) : 0;
    return pid != 0 ? describe_process(pid) : "another program";
}

std::string explain_other(const obstacle &met)
{
    const std::string what = std::string(met.call) + ": " + std::strerror(met.error);
    switch (met.error) {
    case EPERM:
    case EACCES:
        return what + "; run kelmd as root, or with CAP_NET_RAW, CAP_NET_ADMIN, CAP_SYS_ADMIN and "
                      "CAP_SYS_PTRACE";
    case EAFNOSUPPORT:
        return what + "; kelm needs IPv6 in the kernel, even for IPv4: do not boot with "
                      "ipv6.disable=1";
    case EAGAIN:
        return what + "; raise the limit of threads (ulimit -u, TasksMax=)";
    case EMFILE:
        return what + "; raise the limit of open files (ulimit -n, LimitNOFILE=)";
    default:
        return what;
    }
}

} // namespace

std::optional<ino_t> parse_udp_owner(std::string_view table, std::uint16_t port)
{
    while (!table.empty()) {
        const std::string_view line = table.substr(0, table.find('\n'));
        if (const auto inode = owner_of_line(line, port))
            return inode;
        table.remove_prefix(std::min(line.size() + 1, table.size()));
    }
    return std::nullopt;
}

bool is_cleared(const net &ns)
{
    const obstacle &met = ns.obstacle;
    const in_namespace inside(ns);
    if (inside.error() != 0)
        return false;
    switch (met.what) {
    case obstacle::agent_socket_taken:
        return !agent_socket_owner(ns).has_value();
    case obstacle::port_taken: {
        const kelm::unique_fd probe(::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_in6 address{};
        address.sin6_family = AF_INET6;
        address.sin6_port = htons(met.port);
        return ::bind(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) ==
               0;
    }
    default:
        return true;
    }
}

std::string explain(const net &ns, const obstacle &met)
{
    switch (met.what) {
    case obstacle::agent_socket_taken: {
        const auto owner = agent_socket_owner(ns);
        return (owner.value_or(0) != 0 ? describe_process(*owner) : "another process") +
               " already serves agents there (socket @" + std::string(kelm::daemon_socket_name) +
               "); stop it first";
    }
    case obstacle::port_taken:
        return "UDP port " + std::to_string(met.port) + " is taken by " +
               describe_port_owner(ns, met.port) +
               "; stop that program, or run one of the two in another network namespace";
    default:
        return explain_other(met);
    }
}

} // namespace kelmd
