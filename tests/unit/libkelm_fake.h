// SPDX-License-Identifier: GPL-2.0
//
// The other end of a libkelm connection, for tests: does what the test tells it, in a thread.
#ifndef LIBKELM_FAKE_H
#define LIBKELM_FAKE_H

#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "libkelm/bytes.h"
#include "libkelm/fd.h"
#include "libkelm/message.h"

namespace libkelm_fake
{

constexpr uint32_t port_id = 4242;

inline kelm::bytes from_hex(const std::string &hex)
{
    kelm::bytes out;
    for (size_t i = 0; i < hex.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    return out;
}

template<typename T>
kelm::bytes bytes_of(const T &value)
{
    kelm::bytes out(sizeof value);
    std::memcpy(out.data(), &value, sizeof value);
    return out;
}

inline kelm::bytes message(uint16_t type, uint32_t seq, uint32_t pid, const kelm::bytes &body,
                           uint16_t flags = 0)
{
    nlmsghdr header = {};
    header.nlmsg_len = static_cast<uint32_t>(sizeof header + body.size());
    header.nlmsg_type = type;
    header.nlmsg_flags = flags;
    header.nlmsg_seq = seq;
    header.nlmsg_pid = pid;
    kelm::bytes out = bytes_of(header);
    out.insert(out.end(), body.begin(), body.end());
    out.resize((out.size() + 3) / 4 * 4);
    return out;
}

inline kelm::bytes operator+(kelm::bytes left, const kelm::bytes &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// An acknowledgement or done message, as the kernel and kelmd make it.
inline kelm::bytes ack(const nlmsghdr &to, int32_t error)
{
    return message(NLMSG_ERROR, to.nlmsg_seq, port_id, bytes_of(error) + bytes_of(to));
}

inline kelm::bytes done(const nlmsghdr &to, uint16_t flags = 0)
{
    return message(NLMSG_DONE, to.nlmsg_seq, port_id, bytes_of(int32_t{0}),
                   static_cast<uint16_t>(NLM_F_MULTI | flags));
}

struct seen {
    nlmsghdr header;
    kelm::bytes body;
};

struct behaviour {
    // Answers a request with datagrams.
    std::function<std::vector<kelm::bytes>(const seen &)> handle;
    // How bind packets are answered.
    uint32_t bind_port_id = port_id;
    uint32_t allowed_groups = ~0U;
    std::vector<kelm::bytes> before_bind_answer = {};
};

// kelmd's name, in the network namespace of the calling thread.
inline kelm::unique_fd listen_on_name()
{
    const std::string name = "kelm-netlink-31";
    kelm::unique_fd listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path + 1, name.size());
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    if (bind(listener.get(), reinterpret_cast<sockaddr *>(&address), length) != 0 ||
        listen(listener.get(), 4) != 0)
        throw std::runtime_error("cannot listen on kelmd's name");
    return listener;
}

// Serves one connection until its peer closes.
class fake_daemon
{
  public:
    // With a socket pair: take() is the client's end.
    explicit fake_daemon(behaviour how) : how_(std::move(how))
    {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
            throw std::runtime_error("socketpair");
        client_ = kelm::unique_fd(ends[0]);
        socket_ = kelm::unique_fd(ends[1]);
        thread_ = std::thread([this] { serve(); });
    }

    // Accepts one connection.
    fake_daemon(const kelm::unique_fd &listener, behaviour how) : how_(std::move(how))
    {
        thread_ = std::thread([this, fd = listener.get()] {
            socket_ = kelm::unique_fd(accept4(fd, nullptr, nullptr, SOCK_CLOEXEC));
            serve();
        });
    }

    ~fake_daemon()
    {
        client_ = {};
        if (thread_.joinable())
            thread_.join();
    }

    kelm::unique_fd take() { return std::move(client_); }

    // From any thread, once the client's bind packet has been answered.
    void send(const kelm::bytes &datagram) const
    {
        (void)::send(socket_.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL);
    }

    // Waits for the client to be gone; then the rest may be read.
    void wait() { thread_.join(); }
    const std::vector<seen> &requests() const { return requests_; }
    const std::vector<uint32_t> &groups() const { return groups_; } // of every bind packet

  private:
    void serve()
    {
        kelm::bytes buffer(1 << 16);
        for (;;) {
            const ssize_t got = recv(socket_.get(), buffer.data(), buffer.size(), 0);
            if (got <= 0)
                break;
            const kelm::byte_view datagram(buffer.data(), static_cast<size_t>(got));
            sockaddr_nl bind_packet;
            if (datagram.size() == sizeof bind_packet && kelm::read_into(bind_packet, datagram)) {
                answer_bind(bind_packet);
                continue;
            }
            kelm::message_reader reader(datagram);
            while (auto msg = reader.next()) {
                requests_.push_back({msg->header, {msg->body.begin(), msg->body.end()}});
                for (const auto &answer : how_.handle(requests_.back()))
                    send(answer);
            }
        }
        socket_ = {};
    }

    void answer_bind(sockaddr_nl packet)
    {
        groups_.push_back(packet.nl_groups);
        for (const auto &datagram : how_.before_bind_answer)
            send(datagram);
        packet.nl_pid = how_.bind_port_id;
        packet.nl_groups &= how_.allowed_groups;
        send(bytes_of(packet));
    }

    const behaviour how_;
    std::vector<seen> requests_;
    std::vector<uint32_t> groups_;
    kelm::unique_fd client_;
    kelm::unique_fd socket_;
    std::thread thread_;
};

} // namespace libkelm_fake

#endif
