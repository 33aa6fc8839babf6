// SPDX-License-Identifier: GPL-2.0
#include "platform/user/agent_connection.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <linux/netlink.h>
#include <linux/sockios.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <utility>

#include "platform/hosted/skbuff.h"
#include "platform/user/buffer.h"

namespace kelmd
{

namespace
{

// A request up to this length is handled, a longer one refused. The longest useful one carries a
// packet of 64 KiB.
constexpr std::size_t request_room = 68 * 1024;

// How much of one agent is handled before the others have their turn, and what a datagram counts
// in addition to its bytes.
constexpr std::size_t turn_bytes = 64 * 1024;
constexpr std::size_t datagram_overhead = 256;

// The send queue, counted with the kernel's overhead (512 bytes and more for each datagram), and
// that of a subscriber, which must hold what comes in bursts.
constexpr int queue_bytes = 1024 * 1024;
constexpr int subscriber_queue_bytes = 8 * 1024 * 1024;

} // namespace

agent_connection::agent_connection(event_loop &loop, socket_closer &closer, net &ns,
                                   kelm::unique_fd socket, const peer_process &opener,
                                   connection_quota::place place, std::function<void()> closed)
    : loop_(loop), closer_(closer), net_(ns), socket_(std::move(socket)), opener_(opener),
      place_(std::move(place)), closed_(std::move(closed))
{
    set_buffer(socket_.get(), SO_SNDBUF, queue_bytes);
    loop_.watch(socket_.get(), EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET,
                [this](std::uint32_t events) { serve(events); });
    get_net(net_);
}

agent_connection::~agent_connection()
{
    loop_.unwatch(socket_.get());
    net_.netlink.close(*this);
    put_net(net_);
    closer_.close(std::move(socket_), std::move(place_));
}

// Handles edge-triggered readiness.
void agent_connection::serve(std::uint32_t events)
{
    switch (on_ready(events)) {
    case outcome::wait:
        break;
    case outcome::again:
        loop_.rearm(socket_.get());
        break;
    case outcome::closed: {
        const auto closed = std::move(closed_); // outlives the connection
        closed();
        break;
    }
    }
}

agent_connection::outcome agent_connection::on_ready(std::uint32_t events)
{
    if ((events & EPOLLOUT) != 0) {
        if (bind_answer_due_)
            answer_bind();
        net_.netlink.readable_again(*this);
    }
    return (events & ~EPOLLOUT) != 0 ? read_some() : outcome::wait;
}

// Whether the next datagram holds descriptors, for which an agent has no use. To receive them, with
// room or without, would mean to close them here.
bool agent_connection::descriptors_come() const
{
    alignas(cmsghdr) std::uint8_t control[CMSG_SPACE(sizeof(ucred))];
    msghdr message{};
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    return recvmsg(socket_.get(), &message, MSG_PEEK) >= 0 && (message.msg_flags & MSG_CTRUNC) != 0;
}

agent_connection::outcome agent_connection::read_some()
{
    std::array<std::uint8_t, request_room> buffer;
    for (std::size_t used = 0; used < turn_bytes;) {
        if (descriptors_come())
            return outcome::closed;
        iovec room{buffer.data(), buffer.size()};
        alignas(cmsghdr) std::uint8_t control[CMSG_SPACE(sizeof(ucred))];
        msghdr message{};
        message.msg_iov = &room;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        // With MSG_TRUNC the result is the datagram's length even where that exceeds the room.
        const ssize_t received = recvmsg(socket_.get(), &message, MSG_TRUNC | MSG_CMSG_CLOEXEC);
        if (received < 0) {
            // The agent closed with something unread; what it had sent before is still here.
            if (errno == ECONNRESET || errno == EINTR)
                continue;
            return errno == EAGAIN ? outcome::wait : outcome::closed;
        }
        const cmsghdr *const header = CMSG_FIRSTHDR(&message);
        if (header == nullptr || header->cmsg_type != SCM_CREDENTIALS)
            return outcome::closed; // the end: a datagram, empty too, has credentials
        std::memcpy(&sender_, CMSG_DATA(header), sizeof sender_);
        capabilities_.reset();

        const auto len = static_cast<std::size_t>(received);
        const outcome handled = handle(buffer, len);
        explicit_bzero(buffer.data(), std::min(len, buffer.size())); // keys
        if (handled == outcome::closed)
            return outcome::closed;
        used += datagram_overhead + len;
    }
    return outcome::again;
}

// Handles a datagram of len bytes, as much of it as there was room for at the start of buffer.
agent_connection::outcome agent_connection::handle(std::span<const std::uint8_t> buffer,
                                                   std::size_t len)
{
    if (len == sizeof(sockaddr_nl)) {
        sockaddr_nl wanted;
        std::memcpy(&wanted, buffer.data(), sizeof wanted);
        return handle_bind(wanted);
    }
    // As on netlink, an agent that sends without having bound gets a port of its own.
    if (id() == 0 && !net_.netlink.bind(*this, 0, 0))
        return outcome::closed;
    const int result = len > buffer.size() ? refuse_overlong(buffer)
                                           : net_.netlink.receive(*this, buffer.first(len));
    if (result == -ECONNREFUSED)
        return outcome::closed; // the namespace's vrf is gone, and nothing will ever answer
    // Without memory: the agent must not wait for an answer that does not come.
    if (result == -ENOBUFS)
        net_.netlink.note_overrun(id());
    return outcome::wait;
}

agent_connection::outcome agent_connection::handle_bind(const sockaddr_nl &wanted)
{
    bool bound = wanted.nl_family == AF_NETLINK;
    // Before the first event can come.
    if (bound && wanted.nl_groups != 0 && sender_capable(CAP_NET_ADMIN))
        set_buffer(socket_.get(), SO_SNDBUF, subscriber_queue_bytes);
    if (bound && id() != 0)
        net_.netlink.set_groups(*this, wanted.nl_groups);
    else if (bound)
        bound = net_.netlink.bind(*this, wanted.nl_pid, wanted.nl_groups);
    if (!bound)
        net_.netlink.close(*this); // so that the answer says 0
    answer_bind();
    return bound ? outcome::wait : outcome::closed;
}

void agent_connection::answer_bind()
{
    const sockaddr_nl answer{
        .nl_family = AF_NETLINK, .nl_pad = 0, .nl_pid = id(), .nl_groups = groups()};
    bind_answer_due_ =
        ::send(socket_.get(), &answer, sizeof answer, MSG_DONTWAIT | MSG_NOSIGNAL) < 0 &&
        errno == EAGAIN;
}

// A datagram that does not fit is not looked into; its first message is answered for all of them.
int agent_connection::refuse_overlong(std::span<const std::uint8_t> beginning)
{
    struct {
        nlmsghdr header;
        nlmsgerr error;
    } refusal{};
    std::memcpy(&refusal.error.msg, beginning.data(), sizeof refusal.error.msg);
    refusal.error.error = -EMSGSIZE;
    refusal.header = {.nlmsg_len = sizeof refusal,
                      .nlmsg_type = NLMSG_ERROR,
                      .nlmsg_flags = NLM_F_CAPPED,
                      .nlmsg_seq = refusal.error.msg.nlmsg_seq,
                      .nlmsg_pid = id()};
    const auto *const bytes = reinterpret_cast<const std::uint8_t *>(&refusal);
    sk_buff *const skb = hosted::skb_copy_bytes({bytes, sizeof refusal}, 0, GFP_KERNEL);
    if (skb == nullptr)
        return -ENOBUFS;
    (void)net_.netlink.unicast(skb, id()); // a full queue has been noted
    consume_skb(skb);
    return 0;
}

int agent_connection::deliver(std::span<const std::uint8_t> datagram)
{
    if (datagram.size() < sizeof(nlmsghdr))
        return -EMSGSIZE; // would read as the answer to a bind packet, or as the end
    if (::send(socket_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0)
        return 0;
    switch (errno) {
    case EMSGSIZE:
        return -EMSGSIZE;
    case EPIPE:
    case ECONNRESET:
    case ENOTCONN:
        return -ECONNREFUSED;
    default: // full, or the kernel has no memory for now
        return -EAGAIN;
    }
}

bool agent_connection::drained()
{
    // A datagram that is being freed at this moment counts one byte until the kernel is done
    // with it, and that end is not signalled.
    constexpr int being_freed = 64;
    int unread = 0;
    return ioctl(socket_.get(), SIOCOUTQ, &unread) != 0 || unread <= being_freed;
}

bool agent_connection::sender_capable(int capability)
{
    if (!capabilities_) {
        const bool is_opener = sender_.pid == opener_.pid && sender_.uid == opener_.uid;
        capabilities_ = capabilities_of(opener_);
        if (!is_opener && *capabilities_ != 0)
            *capabilities_ &= capabilities_of(identify(sender_.pid, sender_.uid));
    }
    return (*capabilities_ >> capability & 1) != 0;
}

} // namespace kelmd
