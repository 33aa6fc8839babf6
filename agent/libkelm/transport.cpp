// SPDX-License-Identifier: GPL-2.0
#include "libkelm/transport.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include "kelm.h"
#include "libkelm/error.h"
#include "libkelm/message.h"
#include "libkelm/netns.h"
#include "shared/daemon_socket.h"

namespace kelm
{

namespace
{

constexpr int socket_buffer_size = 1 << 20;
constexpr std::size_t receive_size = 128 << 10; // to begin with: longer datagrams are made room for

// The forced form passes the system's limit where the caller has the privilege.
void enlarge_buffer(int fd, int forced_option, int option)
{
    if (setsockopt(fd, SOL_SOCKET, forced_option, &socket_buffer_size, sizeof socket_buffer_size) !=
        0)
        (void)setsockopt(fd, SOL_SOCKET, option, &socket_buffer_size, sizeof socket_buffer_size);
}

// `flags`: SOCK_NONBLOCK or 0.
unique_fd connect_to_daemon(int flags)
{
    unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0));
    if (!fd)
        throw_errno(errno, "cannot open a socket");

    // Also bounds the wait in connect().
    const timeval patience = {.tv_sec = answer_timeout.count() / 1000, .tv_usec = 0};
    (void)setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);

    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::ranges::copy(daemon_socket_name, address.sun_path + 1);
    const socklen_t length = offsetof(sockaddr_un, sun_path) + 1 + daemon_socket_name.size();
    if (connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), length) == 0)
        return fd;
    if (errno == ECONNREFUSED || errno == ENOENT)
        throw error(errno,
                    "kelm is not running in this network namespace: there is neither netlink "
                    "unit 31 nor a kelmd; start kelmd, load kelm.ko, or choose another "
                    "namespace");
    if (errno == EAGAIN)
        throw error(ETIMEDOUT, "kelmd does not accept connections");
    throw_errno(errno, "cannot connect to kelmd");
}

} // namespace

transport::transport(unique_fd fd, bool is_kernel)
    : fd_(std::move(fd)), is_kernel_(is_kernel), room_(receive_size)
{
    enlarge_buffer(fd_.get(), SO_SNDBUFFORCE, SO_SNDBUF);
    enlarge_buffer(fd_.get(), SO_RCVBUFFORCE, SO_RCVBUF);
}

std::unique_ptr<transport> transport::open(const std::string &netns)
{
    auto opened = begin(netns, 0, patience::some);
    opened->wait_for_bind();
    return opened;
}

std::unique_ptr<transport> transport::begin(const std::string &netns, std::uint32_t mask)
{
    return begin(netns, mask, patience::none);
}

std::unique_ptr<transport> transport::begin(const std::string &netns, std::uint32_t mask,
                                            patience with)
{
    std::unique_ptr<transport> opened;
    in_netns(netns, [&] {
        unique_fd kernel(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, KELM_NETLINK_UNIT));
        if (kernel) {
            opened.reset(new transport(std::move(kernel), true));
            opened->bind_kernel();
            opened->set_groups(mask);
        } else {
            const int flags = with == patience::none ? SOCK_NONBLOCK : 0;
            opened.reset(new transport(connect_to_daemon(flags), false));
            opened->verify_daemon();
            opened->send_bind(mask);
        }
    });
    return opened;
}

// Anybody may take kelmd's abstract name where kelmd does not run; what is sent here holds keys.
void transport::verify_daemon() const
{
    ucred peer = {};
    socklen_t length = sizeof peer;
    if (getsockopt(fd_.get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0)
        throw_errno(errno, "cannot determine who runs kelmd");
    if (peer.uid != 0 && peer.uid != geteuid())
        throw error(EPERM, "kelmd is run by user " + std::to_string(peer.uid) +
                               ", who is neither root nor you: refusing to talk to process " +
                               std::to_string(peer.pid));
}

void transport::bind_kernel()
{
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    // Refusals need not repeat the request.
    const int on = 1;
    (void)setsockopt(fd_.get(), SOL_NETLINK, NETLINK_CAP_ACK, &on, sizeof on);
    if (bind(fd_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        throw_errno(errno, "cannot bind the netlink socket");
    socklen_t length = sizeof address;
    if (getsockname(fd_.get(), reinterpret_cast<sockaddr *>(&address), &length) != 0)
        throw_errno(errno, "cannot learn the netlink port id");
    port_id_ = address.nl_pid;
}

// The bind packet: a sockaddr_nl, shorter than any message, in both directions.
void transport::send_bind(std::uint32_t mask)
{
    sockaddr_nl wanted = {};
    wanted.nl_family = AF_NETLINK;
    wanted.nl_pid = port_id_;
    wanted.nl_groups = mask;
    const time_point deadline = now() + answer_timeout;
    while (!send({reinterpret_cast<const std::uint8_t *>(&wanted), sizeof wanted})) {
        if (now() >= deadline)
            throw error(ETIMEDOUT, "kelmd does not read what it is sent");
        wait_for_socket(POLLOUT, deadline);
    }
    wanted_groups_ = mask;
    is_binding_ = true;
}

bool transport::is_open()
{
    bytes datagram;
    while (is_binding_) {
        if (receive_raw(datagram) == outcome::nothing)
            return false;
        if (datagram.size() != sizeof(sockaddr_nl)) {
            early_.push_back(std::move(datagram));
            continue;
        }
        const auto got = *read_as<sockaddr_nl>(datagram);
        if (got.nl_pid == 0)
            throw error(EADDRINUSE, "kelmd has given the port id to another client");
        port_id_ = got.nl_pid;
        groups_ = got.nl_groups;
        is_binding_ = false;
        expect_groups();
    }
    return true;
}

void transport::wait_for_bind()
{
    const time_point deadline = now() + answer_timeout;
    while (!is_open()) {
        if (now() >= deadline)
            throw error(ETIMEDOUT, "kelmd does not answer the bind packet");
        wait_for_socket(POLLIN, deadline);
    }
}

void transport::set_kernel_groups(std::uint32_t mask)
{
    for (int group = 1; group < KELM_NLG_NUM; group++) {
        const std::uint32_t bit = 1U << (group - 1);
        const int option = (mask & bit) != 0 ? NETLINK_ADD_MEMBERSHIP : NETLINK_DROP_MEMBERSHIP;
        if (((mask ^ groups_) & bit) == 0)
            continue;
        if (setsockopt(fd_.get(), SOL_NETLINK, option, &group, sizeof group) != 0)
            throw_errno(errno, "cannot change the membership of group " + std::to_string(group));
        groups_ ^= bit;
    }
}

void transport::set_groups(std::uint32_t mask)
{
    wanted_groups_ = mask;
    if (is_kernel_) {
        set_kernel_groups(mask);
        expect_groups();
    } else {
        send_bind(mask);
        wait_for_bind();
    }
}

void transport::expect_groups() const
{
    if ((wanted_groups_ & ~groups_) != 0)
        throw error(EPERM, "kelm's notifications require the network administration privilege "
                           "(CAP_NET_ADMIN): run as root, or give the program that capability");
}

bool transport::send(byte_view datagram)
{
    sockaddr_nl kernel = {};
    kernel.nl_family = AF_NETLINK;
    const auto *address = is_kernel_ ? reinterpret_cast<const sockaddr *>(&kernel) : nullptr;
    const socklen_t address_length = is_kernel_ ? sizeof kernel : 0;

    ssize_t sent;
    do {
        sent = sendto(fd_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                      address, address_length);
    } while (sent < 0 && errno == EINTR);
    if (sent >= 0)
        return true;
    if (errno == EAGAIN)
        return false;
    if (errno == EPIPE || errno == ECONNRESET)
        throw error(errno, "kelmd has closed the connection");
    if (errno == ECONNREFUSED)
        throw error(errno, "kelm no longer serves this network namespace");
    throw_errno(errno, "cannot send to kelm");
}

transport::outcome transport::receive(bytes &into)
{
    if (early_.empty())
        return receive_raw(into);
    into = std::move(early_.front());
    early_.pop_front();
    return outcome::datagram;
}

// Datagrams whose sender is not the kernel are passed over: any process may send to a netlink
// port.
transport::outcome transport::receive_raw(bytes &into)
{
    for (;;) {
        sockaddr_nl sender = {};
        socklen_t sender_length = sizeof sender;
        ssize_t received = recv(fd_.get(), nullptr, 0, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
        if (received > 0) {
            room_.resize(std::max(room_.size(), static_cast<std::size_t>(received)));
            received = recvfrom(fd_.get(), room_.data(), room_.size(), MSG_DONTWAIT,
                                reinterpret_cast<sockaddr *>(&sender), &sender_length);
        }
        if (received < 0 && errno == ENOBUFS)
            return outcome::overrun;
        if (received < 0 && errno == EAGAIN)
            return outcome::nothing;
        if (received < 0 && errno == EINTR)
            continue;
        if (received < 0 && errno != ECONNRESET)
            throw_errno(errno, "cannot receive from kelm");
        if (received <= 0)
            throw error(ECONNRESET, "kelmd has closed the connection");
        if (is_kernel_ && (sender_length < sizeof sender || sender.nl_pid != 0))
            continue;
        into.assign(room_.begin(), room_.begin() + received);
        return outcome::datagram;
    }
}

void transport::wait(short events, time_point deadline)
{
    if (early_.empty())
        wait_for_socket(events, deadline);
}

void transport::wait_for_socket(short events, time_point deadline) const
{
    pollfd waiting = {.fd = fd_.get(), .events = events, .revents = 0};
    if (poll(&waiting, 1, poll_timeout(deadline, now())) < 0 && errno != EINTR)
        throw_errno(errno, "cannot wait for kelm");
}

} // namespace kelm
