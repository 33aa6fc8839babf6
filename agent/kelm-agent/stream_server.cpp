// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/stream_server.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <sys/socket.h>
#include <utility>

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

void stream_server::accept_client()
{
    kelm::unique_fd fd(accept4(listening_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (clients_.size() >= most_clients || (!fd && (errno == EMFILE || errno == ENFILE)))
        make_room();
    if (!fd)
        return;
    const auto added = clients_.insert(clients_.end(), std::make_shared<client>());
    client &served = **added;
    served.fd = std::move(fd);
    served.on_ready = loop_.on_io(served.fd.get(), EPOLLIN, [=, this] { read_from(added); });
    limit_time(added);
    read_from(added); // the request may be there already
}

// The client that has taken longest goes, rather than one that has all there is.
void stream_server::make_room()
{
    auto first = std::ranges::find_if(clients_, [](const auto &c) { return !c->is_waiting; });
    if (first == clients_.end())
        first = clients_.begin();
    if (first != clients_.end())
        clients_.erase(first);
}

void stream_server::limit_time(client_position limited)
{
    (*limited)->on_timeout = loop_.after(patience, [=, this] { clients_.erase(limited); });
}

void stream_server::read_from(client_position from)
{
    client &served = **from;
    std::array<char, 4096> piece;
    const ssize_t count = recv(served.fd.get(), piece.data(), piece.size(), 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (count <= 0 || served.received.size() > longest_request) {
        clients_.erase(from);
        return;
    }
    served.received.append(piece.data(), static_cast<std::size_t>(count));
    const auto take_reply = [this, from, asker = std::weak_ptr(*from)](writer text) -> waker {
        if (asker.expired())
            return [] {};
        return answer(from, std::move(text));
    };
    const bool is_complete = answer_(served.received, take_reply);
    if (is_complete && !served.answer)
        served.on_ready = {};
}

stream_server::waker stream_server::answer(client_position to, writer text)
{
    (*to)->answer = std::move(text);
    write_when_possible(to);
    return [this, to, asker = std::weak_ptr(*to)] {
        if (!asker.expired())
            wake(to);
    };
}

void stream_server::write_when_possible(client_position to)
{
    client &served = **to;
    served.on_ready = {}; // a descriptor is watched once
    served.on_ready = loop_.on_io(
        served.fd.get(), EPOLLOUT, [=, this] { write_to(to); }, event_loop::turn::first);
}

void stream_server::write_to(client_position to)
{
    client &served = **to;
    if (served.sent == served.piece.size()) {
        auto next = served.answer();
        if (!next)
            return wait_for_more(to);
        served.piece = *std::move(next);
        served.sent = 0;
    }
    const std::string_view unsent = std::string_view(served.piece).substr(served.sent);
    const ssize_t count = send(served.fd.get(), unsent.data(), unsent.size(), MSG_NOSIGNAL);
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (count > 0)
        served.sent += static_cast<std::size_t>(count);
    if (count < 0 || unsent.empty())
        clients_.erase(to);
    else if (served.is_open_ended)
        limit_time(to);
}

void stream_server::wait_for_more(client_position to)
{
    client &served = **to;
    served.is_waiting = served.is_open_ended = true;
    served.on_timeout = {};
    served.on_ready = {};
    served.on_ready = loop_.on_io(served.fd.get(), EPOLLHUP, [=, this] { clients_.erase(to); });
}

void stream_server::wake(client_position to)
{
    if (!std::exchange((*to)->is_waiting, false))
        return;
    limit_time(to);
    write_when_possible(to);
}

stream_server::writer stream_server::whole(std::string text)
{
    return [rest = std::move(text)]() mutable { return std::exchange(rest, {}); };
}

} // namespace kelm_agent
