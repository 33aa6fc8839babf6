// SPDX-License-Identifier: GPL-2.0
#include "platform/user/agent_listener.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>

#include "platform/user/agent_connection.h"
#include "platform/user/net.h"
#include "platform/user/process.h"
#include "platform/user/system_call.h"

namespace kelmd
{

namespace
{

// How many connections are taken before others have their turn.
constexpr int connections_per_turn = 16;

constexpr auto accept_retry_interval = std::chrono::milliseconds(100);

// No descriptor if there is none to be had; errno says why.
kelm::unique_fd seqpacket_socket(const net &ns)
{
    const in_namespace inside(ns);
    if (inside.error() != 0) {
        errno = inside.error();
        return {};
    }
    return kelm::unique_fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

socklen_t fill_address(sockaddr_un &address)
{
    address = {};
    address.sun_family = AF_UNIX;
    kelm::daemon_socket_name.copy(address.sun_path + 1, sizeof address.sun_path - 1);
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 +
                                  kelm::daemon_socket_name.size());
}

bool get_peer(int fd, ucred &peer)
{
    socklen_t len = sizeof peer;
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &len) == 0;
}

} // namespace

agent_listener::agent_listener(event_loop &loop, connection_quota &quota, socket_closer &closer,
                               net &ns)
    : loop_(loop), quota_(quota), closer_(closer), net_(ns), socket_(seqpacket_socket(ns)),
      accept_again_(loop, [this] { accept_some(); })
{
    checked("agent socket", socket_.get());
    // On the listener, so that what is sent before the connection is taken has credentials too.
    const int on = 1;
    checked("SO_PASSCRED", setsockopt(socket_.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on));
    sockaddr_un address;
    const socklen_t len = fill_address(address);
    checked("agent socket",
            ::bind(socket_.get(), reinterpret_cast<const sockaddr *>(&address), len));
    checked("agent socket", ::listen(socket_.get(), SOMAXCONN));
    loop_.watch(socket_.get(), EPOLLIN | EPOLLET, [this](std::uint32_t) { accept_some(); });
}

agent_listener::~agent_listener()
{
    loop_.unwatch(socket_.get());
    closer_.close(std::move(socket_), std::nullopt); // with connections that were not taken
}

void agent_listener::accept_some()
{
    for (int i = 0; i < connections_per_turn; ++i) {
        if (closer_.is_behind()) {
            accept_again_.arm(accept_retry_interval);
            return;
        }
        kelm::unique_fd socket(
            ::accept4(socket_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!socket) {
            if (errno != EAGAIN)
                accept_again_.arm(accept_retry_interval);
            return;
        }
        try {
            take(std::move(socket));
        } catch (...) { // this one is lost; those behind it are not
            accept_again_.arm(accept_retry_interval);
            throw;
        }
    }
    loop_.rearm(socket_.get());
}

void agent_listener::take(kelm::unique_fd socket)
{
    ucred peer{};
    auto place = get_peer(socket.get(), peer) ? quota_.take(peer.uid) : std::nullopt;
    if (!place) {
        closer_.close(std::move(socket), std::nullopt);
        return;
    }
    const int fd = socket.get();
    connections_[fd] = std::make_unique<agent_connection>(
        loop_, closer_, net_, std::move(socket), identify(peer.pid, peer.uid), std::move(*place),
        [this, fd] { connections_.erase(fd); });
}

std::optional<pid_t> agent_socket_owner(const net &ns)
{
    const kelm::unique_fd socket = seqpacket_socket(ns);
    if (!socket)
        return 0;
    sockaddr_un address;
    const socklen_t len = fill_address(address);
    if (::connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), len) != 0 &&
        errno == ECONNREFUSED)
        return std::nullopt;
    ucred peer{};
    return get_peer(socket.get(), peer) ? peer.pid : 0;
}

} // namespace kelmd
