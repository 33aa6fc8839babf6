// SPDX-License-Identifier: GPL-2.0
//
// A kelmd that is not real, for tests of the agent's side: it does what the test tells it, in a
// thread of its own.
#pragma once

#include <algorithm>
#include <cstring>
#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <mutex>
#include <optional>
#include <poll.h>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <vector>

#include "libkelm/bytes.h"
#include "libkelm/channel.h"
#include "libkelm/error.h"
#include "libkelm/message.h"
#include "shared/unique_fd.h"

namespace libkelm_fake
{

constexpr std::uint32_t port_id = 4242;

// Spaces may stand between the bytes.
inline kelm::bytes from_hex(std::string hex)
{
    std::erase(hex, ' ');
    kelm::bytes out;
    for (std::size_t i = 0; i < hex.size(); i += 2)
        out.push_back(static_cast<std::uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    return out;
}

template<typename T>
kelm::bytes bytes_of(const T &value)
{
    kelm::bytes out(sizeof value);
    std::memcpy(out.data(), &value, sizeof value);
    return out;
}

inline kelm::bytes operator+(kelm::bytes left, const kelm::bytes &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

inline kelm::bytes message(std::uint16_t type, std::uint32_t seq, std::uint32_t pid,
                           const kelm::bytes &body, std::uint16_t flags = 0)
{
    const auto length = static_cast<std::uint32_t>(sizeof(nlmsghdr) + body.size());
    kelm::bytes out = bytes_of(nlmsghdr{length, type, flags, seq, pid}) + body;
    out.resize((out.size() + 3) / 4 * 4);
    return out;
}

// What answers a request, as the kernel and kelmd make it.
inline kelm::bytes reply(const nlmsghdr &to, std::uint16_t type, const kelm::bytes &body)
{
    return message(type, to.nlmsg_seq, port_id, body);
}

inline kelm::bytes ack(const nlmsghdr &to, std::int32_t error)
{
    return reply(to, NLMSG_ERROR, bytes_of(error) + bytes_of(to));
}

inline kelm::bytes done(const nlmsghdr &to, std::uint16_t flags = 0, std::int32_t error = 0)
{
    return message(NLMSG_DONE, to.nlmsg_seq, port_id, bytes_of(error),
                   static_cast<std::uint16_t>(NLM_F_MULTI | flags));
}

struct seen {
    nlmsghdr header;
    kelm::bytes body;
};

using answers = std::vector<kelm::bytes>; // datagrams

// Takes every request, and has nothing to dump.
inline answers agree(const seen &request)
{
    const bool asks = (request.header.nlmsg_flags & NLM_F_ACK) != 0;
    return {asks ? ack(request.header, 0) : done(request.header)};
}

struct behaviour {
    std::function<answers(const seen &)> handle = agree; // in the fake's thread
    // How bind packets are answered.
    std::uint32_t bind_port_id = port_id;
    std::uint32_t allowed_groups = ~0U;
    answers before_bind_answer = {};
};

// Serves one connection to kelmd's name, in the network namespace of the calling thread. Clients
// have to go before it does.
class fake_daemon
{
  public:
    explicit fake_daemon(behaviour how) : how_(std::move(how))
    {
        constexpr char name[] = "\0kelm-netlink-31"; // abstract
        sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
        std::memcpy(address.sun_path, name, sizeof name);
        const socklen_t length = offsetof(sockaddr_un, sun_path) + sizeof name - 1;
        if (bind(listener_.get(), reinterpret_cast<sockaddr *>(&address), length) != 0 ||
            listen(listener_.get(), 4) != 0)
            throw std::runtime_error("cannot listen on kelmd's name");
        thread_ = std::thread([this] { serve(); });
    }

    ~fake_daemon()
    {
        shutdown(listener_.get(), SHUT_RDWR); // where nobody ever connected
        thread_.join();
    }

    // For `handle` to call. False when the client is gone.
    bool send(const kelm::bytes &datagram) const
    {
        return ::send(socket_.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL) >= 0;
    }
    void hang_up() const { shutdown(socket_.get(), SHUT_RDWR); }

    // What has come so far; the groups are those of the bind packets.
    std::vector<seen> requests() const
    {
        const std::lock_guard guard(mutex_);
        return requests_;
    }
    std::vector<std::uint32_t> groups() const
    {
        const std::lock_guard guard(mutex_);
        return groups_;
    }

  private:
    void serve()
    {
        socket_ = kelm::unique_fd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        kelm::bytes buffer(1 << 16);
        ssize_t got;
        while ((got = recv(socket_.get(), buffer.data(), buffer.size(), 0)) > 0)
            take(kelm::byte_view(buffer).first(static_cast<std::size_t>(got)));
        socket_ = {};
    }

    void take(kelm::byte_view datagram)
    {
        const std::lock_guard guard(mutex_);
        EXPECT_EQ(datagram.size() % NLMSG_ALIGNTO, 0U);
        sockaddr_nl bind_packet;
        if (datagram.size() == sizeof bind_packet && kelm::read_into(bind_packet, datagram))
            return answer_bind(bind_packet);
        kelm::message_reader reader(datagram);
        while (auto msg = reader.next()) {
            requests_.push_back({msg->header, {msg->body.begin(), msg->body.end()}});
            send_all(how_.handle(requests_.back()));
        }
    }

    void answer_bind(sockaddr_nl packet)
    {
        groups_.push_back(packet.nl_groups);
        packet.nl_pid = how_.bind_port_id;
        packet.nl_groups &= how_.allowed_groups;
        send_all(how_.before_bind_answer);
        send(bytes_of(packet));
    }

    void send_all(const answers &datagrams) const
    {
        for (const auto &datagram : datagrams)
            send(datagram);
    }

    const behaviour how_;
    mutable std::mutex mutex_; // guards what has come
    std::vector<seen> requests_;
    std::vector<std::uint32_t> groups_;
    kelm::unique_fd listener_{socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)};
    kelm::unique_fd socket_; // the thread's
    std::thread thread_;
};

// A kelm without sockets and threads, on a clock that moves when the client waits or the test
// says so. The client owns it; the test keeps a pointer.
class fake_channel : public kelm::channel
{
  public:
    // How requests are answered, as soon as they are sent, and what the test does to that.
    std::function<answers(const seen &)> handle = agree;
    std::chrono::microseconds latency{0}; // before anything can be read; 0 where it is the kernel's
    bool kernel = false;
    std::size_t room = SIZE_MAX;        // datagrams that can still be sent
    std::optional<kelm::error> failure; // of the connection, from now on
    std::vector<seen> requests;         // that were sent
    std::size_t datagrams = 0;          // that they came in

    // An event, or what `handle` has kept back.
    void tell(const kelm::bytes &datagram) { arrive(outcome::datagram, datagram); }
    // The loss of datagrams, as kernel or kelmd tell it.
    void lose()
    {
        arrive(kernel ? outcome::overrun : outcome::datagram, message(NLMSG_OVERRUN, 0, 0, {}));
    }
    void advance(kelm::milliseconds by) { now_ += by; }

    int fd() const override { return -1; }
    std::uint32_t port_id() const override { return libkelm_fake::port_id; }
    bool is_kernel() const override { return kernel; }
    void set_groups(std::uint32_t /*mask*/) override {}
    kelm::time_point now() const override { return now_; }

    bool send(kelm::byte_view datagram) override
    {
        if (failure)
            throw *failure;
        if (room == 0)
            return false;
        --room;
        ++datagrams;
        kelm::message_reader reader(datagram);
        while (auto msg = reader.next()) {
            requests.push_back({msg->header, {msg->body.begin(), msg->body.end()}});
            for (const auto &answer : handle(requests.back()))
                tell(answer);
        }
        return true;
    }

    outcome receive(kelm::bytes &into) override
    {
        if (unread_.empty() && failure)
            throw *failure;
        if (unread_.empty() || unread_.front().at > now())
            return outcome::nothing;
        const arrival next = std::move(unread_.front());
        unread_.pop_front();
        into = next.datagram;
        return next.what;
    }

    void wait(short events, kelm::time_point deadline) override
    {
        if ((events & POLLOUT) != 0 && room > 0)
            return;
        const kelm::time_point until =
            unread_.empty() ? deadline : std::min(deadline, unread_.front().at);
        if (until == kelm::time_point::max())
            throw std::logic_error("waits for ever");
        now_ = std::max(now_, until);
    }

  protected:
    struct arrival {
        kelm::time_point at;
        outcome what;
        kelm::bytes datagram;
    };

    virtual void arrive(outcome what, const kelm::bytes &datagram)
    {
        unread_.push_back({now() + latency, what, datagram});
    }
    const std::deque<arrival> &unread() const { return unread_; }

  private:
    kelm::time_point now_{std::chrono::hours(1)};
    std::deque<arrival> unread_;
};

// Every test gets a network namespace of its own, where kelmd's name is free. Needs root.
class own_namespace : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "this test needs to run as root";
    }
};

} // namespace libkelm_fake
