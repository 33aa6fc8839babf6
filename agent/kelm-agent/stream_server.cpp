// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/stream_server.h"

#include <array>
#include <cerrno>
#include <optional>
#include <sys/socket.h>

namespace kelm_agent
{

namespace
{

constexpr std::size_t most_clients = 32;
constexpr std::size_t longest_request = 64 << 10;
constexpr std::chrono::seconds patience{10};

} // namespace

stream_server::stream_server(event_loop &loop, kelm::unique_fd listening, answerer answer)
    : loop_(loop), listening_(std::move(listening)), answer_(std::move(answer))
{
    on_client_ = loop_.on_io(listening_.get(), EPOLLIN, [this] { accept_client(); });
}

// With too many clients the one that has waited longest goes.
void stream_server::accept_client()
{
    kelm::unique_fd fd(accept4(listening_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (clients_.size() >= most_clients || (!fd && (errno == EMFILE || errno == ENFILE)))
        if (!clients_.empty())
            clients_.pop_front();
    if (!fd)
        return;
    const auto added = clients_.emplace(clients_.end());
    added->fd = std::move(fd);
    added->on_ready = loop_.on_io(added->fd.get(), EPOLLIN, [=, this] { read_from(added); });
    added->on_timeout = loop_.after(patience, [=, this] { clients_.erase(added); });
}

void stream_server::read_from(client_position from)
{
    std::array<char, 4096> piece;
    const ssize_t count = recv(from->fd.get(), piece.data(), piece.size(), 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (count <= 0 || from->received.size() > longest_request) {
        clients_.erase(from);
        return;
    }
    from->received.append(piece.data(), static_cast<std::size_t>(count));
    auto answer = answer_(from->received);
    if (!answer)
        return;
    from->unsent = *std::move(answer);
    from->on_ready = {}; // a descriptor is watched once
    from->on_ready = loop_.on_io(from->fd.get(), EPOLLOUT, [=, this] { write_to(from); });
}

void stream_server::write_to(client_position to)
{
    const ssize_t count = send(to->fd.get(), to->unsent.data(), to->unsent.size(), MSG_NOSIGNAL);
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (count > 0)
        to->unsent.erase(0, static_cast<std::size_t>(count));
    if (count < 0 || to->unsent.empty())
        clients_.erase(to);
}

} // namespace kelm_agent
