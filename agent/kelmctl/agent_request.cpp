// SPDX-License-Identifier: GPL-2.0
#include "kelmctl/agent_request.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include "libkelm/error.h"
#include "shared/unique_fd.h"

namespace kelmctl
{

namespace
{

constexpr timeval patience = {.tv_sec = 10, .tv_usec = 0};

kelm::unique_fd connect_to(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw kelm::error(ENAMETOOLONG, path + " is too long for a socket's name");
    std::ranges::copy(path, address.sun_path);

    kelm::unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd)
        kelm::throw_errno(errno, "cannot open a socket");
    (void)setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    (void)setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    if (connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
        return fd;
    if (errno == ENOENT || errno == ECONNREFUSED)
        throw kelm::error(errno, "no kelm-agent serves " + path +
                                     ": start it, or name its socket with 'socket PATH'");
    kelm::throw_errno(errno, "cannot connect to kelm-agent at " + path);
}

void send_all(const kelm::unique_fd &fd, const std::string &text)
{
    for (std::size_t sent = 0; sent < text.size();) {
        const ssize_t count = send(fd.get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (count < 0)
            kelm::throw_errno(errno, "cannot send to kelm-agent");
        sent += static_cast<std::size_t>(count);
    }
}

void send_request(const kelm::unique_fd &fd, const agent_json &request)
{
    send_all(fd, request.dump(-1, ' ', false, agent_json::error_handler_t::replace) + "\n");
}

// Appends what comes next; false: that was all.
bool receive_more(const kelm::unique_fd &fd, std::string &text)
{
    std::array<char, 65536> piece;
    const ssize_t count = recv(fd.get(), piece.data(), piece.size(), 0);
    if (count < 0 && errno == EAGAIN)
        throw kelm::error(ETIMEDOUT, "kelm-agent does not answer");
    if (count < 0)
        kelm::throw_errno(errno, "cannot receive from kelm-agent");
    text.append(piece.data(), static_cast<std::size_t>(count));
    return count > 0;
}

// A line of the agent. Throws its own words when it refuses.
agent_json parse(std::string_view line)
{
    std::string refusal;
    try {
        agent_json reply = agent_json::parse(line);
        if (reply.contains("event") || reply.at("ok").get<bool>())
            return reply;
        refusal = reply.value("error", "request refused");
    } catch (const agent_json::exception &) {
        throw kelm::error(EPROTO, "malformed answer from kelm-agent: version mismatch?");
    }
    throw kelm::error(EINVAL, "kelm-agent: " + refusal);
}

} // namespace

agent_json ask_agent(const std::string &socket_path, const agent_json &request)
{
    const kelm::unique_fd fd = connect_to(socket_path);
    send_request(fd, request);
    std::string text;
    while (receive_more(fd, text)) {
    }
    return parse(text);
}

void follow_agent(const std::string &socket_path, const agent_json &request,
                  const std::function<bool(const agent_json &)> &take)
{
    constexpr timeval for_ever = {};
    const kelm::unique_fd fd = connect_to(socket_path);
    send_request(fd, request);
    (void)setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &for_ever, sizeof for_ever);
    std::string text;
    while (receive_more(fd, text)) {
        std::size_t begin = 0;
        for (std::size_t end = 0; (end = text.find('\n', begin)) != std::string::npos;
             begin = end + 1)
            if (!take(parse(std::string_view(text).substr(begin, end - begin))))
                return;
        text.erase(0, begin);
    }
    throw kelm::error(ECONNRESET, "kelm-agent has ended the connection");
}

} // namespace kelmctl
