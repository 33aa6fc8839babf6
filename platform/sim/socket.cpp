// SPDX-License-Identifier: GPL-2.0
//
// Packet sockets. What UDP sockets receive comes from world::deliver, what the others send is
// kept as frames.
#include "platform/socket.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netpacket/packet.h>
#include <new>
#include <sys/socket.h>

#include "platform/hosted/skbuff.h"
#include "platform/sim/machine.h"
#include "platform/sim/net.h"

namespace
{

using sim::packet_sock;
using sim::service;
using sim::socket_kind;

packet_sock &packet(sock *sk)
{
    return *static_cast<packet_sock *>(sk);
}

bool runs_elsewhere(const sock *sk)
{
    sim::scheduler &sched = sim::the_machine().sched;
    for (const auto &each : sched.all()) {
        if (each.get() != &sched.current() && each->running_sock == sk)
            return true;
    }
    return false;
}

// The kinds of socket that the engine has use for.
bool kind_of(int family, int type, int protocol, socket_kind &kind)
{
    if (family == AF_INET6 && type == SOCK_DGRAM && protocol == 0)
        kind = socket_kind::udp;
    else if (family == AF_INET6 && type == SOCK_RAW && protocol == IPPROTO_RAW)
        kind = socket_kind::raw;
    else if (family == AF_PACKET && type == SOCK_RAW)
        kind = socket_kind::packet;
    else
        return false;
    return true;
}

service service_of(socket_kind kind)
{
    switch (kind) {
    case socket_kind::udp:
        return service::udp_socket;
    case socket_kind::raw:
        return service::raw_socket;
    case socket_kind::packet:
        break;
    }
    return service::packet_socket;
}

template<class T>
T read_as(const sim::bytes &data, std::size_t offset = 0)
{
    T result{};
    if (data.size() >= offset + sizeof result)
        std::memcpy(&result, data.data() + offset, sizeof result);
    else
        sim::failure("an address or control message is too short: %zu bytes", data.size());
    return result;
}

void map_ipv4(in6_addr &to, const in_addr &from)
{
    to.s6_addr[10] = 0xff;
    to.s6_addr[11] = 0xff;
    std::memcpy(to.s6_addr + 12, &from, sizeof from);
}

void decode_control(sim::frame &frame)
{
    if (frame.control.empty())
        return;
    const auto header = read_as<cmsghdr>(frame.control);
    if (header.cmsg_len > frame.control.size())
        sim::failure("a control message of %zu bytes in %zu", header.cmsg_len,
                     frame.control.size());
    frame.has_packet_info = true;
    if (header.cmsg_level == IPPROTO_IP && header.cmsg_type == IP_PKTINFO) {
        const auto info = read_as<in_pktinfo>(frame.control, sizeof header);
        frame.ifindex = info.ipi_ifindex;
        map_ipv4(frame.source, info.ipi_spec_dst);
    } else if (header.cmsg_level == IPPROTO_IPV6 && header.cmsg_type == IPV6_PKTINFO) {
        const auto info = read_as<in6_pktinfo>(frame.control, sizeof header);
        frame.ifindex = static_cast<int>(info.ipi6_ifindex);
        frame.source = info.ipi6_addr;
    } else {
        sim::failure("control message of level %d, type %d", header.cmsg_level, header.cmsg_type);
    }
}

void decode_name(sim::frame &frame)
{
    if (frame.kind == socket_kind::raw) {
        const auto name = read_as<sockaddr_in6>(frame.name);
        if (name.sin6_family != AF_INET6)
            sim::failure("a raw IPv6 socket sends to address family %u", name.sin6_family);
        frame.destination = name.sin6_addr;
    } else {
        const auto name = read_as<sockaddr_ll>(frame.name);
        if (name.sll_family != AF_PACKET)
            sim::failure("a packet socket sends to address family %u", name.sll_family);
        frame.ifindex = name.sll_ifindex;
    }
}

sim::bytes copy(const void *start, std::size_t len)
{
    const auto *first = static_cast<const std::uint8_t *>(start);
    return start == nullptr ? sim::bytes() : sim::bytes(first, first + len);
}

void keep_frame(const packet_sock &sk, const kernel_msghdr &msg, const kvec *vec, std::size_t num)
{
    sim::machine &s = sim::the_machine();
    sim::frame frame{};
    frame.tick = s.clock.tick;
    frame.wall_ns = s.clock.wall_ns;
    frame.raw_ns = s.clock.raw_ns;
    frame.netns = sk.netns;
    frame.kind = sk.kind;
    frame.priority = sk.priority;
    frame.sndbuf = sk.sndbuf;
    frame.flags = msg.msg_flags;
    frame.name = copy(msg.msg_name, msg.msg_namelen);
    frame.control = copy(msg.msg_control, msg.msg_controllen);
    for (std::size_t i = 0; i < num; ++i) {
        const sim::bytes part = copy(vec[i].iov_base, vec[i].iov_len);
        frame.data.insert(frame.data.end(), part.begin(), part.end());
    }
    decode_name(frame);
    decode_control(frame);
    s.frames.push_back(std::move(frame));
}

} // namespace

int __sock_create(net *net, int family, int type, int protocol, sock **res, int kern)
{
    sim::machine &s = sim::the_machine();
    s.expect_may_sleep("__sock_create");
    socket_kind kind{};
    if (!kind_of(family, type, protocol, kind)) {
        sim::failure("no such socket here: family %d, type %d, protocol %d", family, type,
                     protocol);
        return -EAFNOSUPPORT;
    }
    if (const int error = s.faults.use(service_of(kind)); error != 0)
        return error;
    void *memory = kmalloc(sizeof(packet_sock), GFP_KERNEL);
    if (memory == nullptr)
        return -ENOMEM;
    auto *sk = new (memory) packet_sock(&sim::live(net));
    sk->kind = kind;
    sk->counted = kern == 0;
    if (sk->counted)
        sim::get_net(*net);
    ++net->sockets;
    *res = sk;
    return 0;
}

int kernel_bind(sock *sk, const void *addr, int addrlen)
{
    sim::machine &s = sim::the_machine();
    s.expect_may_sleep("kernel_bind");
    const auto name = read_as<sockaddr_in6>(copy(addr, static_cast<std::size_t>(addrlen)));
    packet_sock &udp = packet(sk);
    if (udp.kind != socket_kind::udp || name.sin6_family != AF_INET6)
        return -EINVAL;
    if (udp.data_ready == nullptr)
        sim::failure("a socket is bound that has no callback for what arrives");
    if (const int error = s.faults.use(service::bind); error != 0)
        return error;
    const std::uint16_t port = ntohs(name.sin6_port);
    if (udp.port != 0)
        return -EINVAL;
    if (!sk->netns->udp_ports.emplace(port, &udp).second)
        return -EADDRINUSE;
    udp.port = port;
    return 0;
}

void sock_release(sock *sk)
{
    sim::machine &s = sim::the_machine();
    s.expect_may_sleep("sock_release");
    packet_sock &released = packet(sk);
    if (s.sched.current().running_sock == sk)
        sim::fatal("a socket is released in its own callback");
    net &ns = sim::live(sk->netns);
    if (released.port != 0)
        ns.udp_ports.erase(released.port);
    s.sched.wait("a socket's callback", [sk] { return !runs_elsewhere(sk); });
    while (sk_buff *skb = __skb_recv_udp(sk))
        kfree_skb(skb);
    const bool counted = released.counted;
    --ns.sockets;
    released.~packet_sock();
    kfree(sk);
    if (counted)
        sim::put_net(ns);
}

void sock_set_data_ready(sock *sk, sock_data_ready callback, void *user_data)
{
    packet(sk).data_ready = callback;
    packet(sk).user_data = user_data;
}

void sock_set_data_ahead(sock *sk, sock_data_ahead callback)
{
    packet(sk).data_ahead = callback;
}

void *sock_user_data(const sock *sk)
{
    return static_cast<const packet_sock *>(sk)->user_data;
}

void sock_set_allocation(sock *sk, gfp_t gfp)
{
    packet(sk).allocation = gfp;
}

void sock_set_priority(sock *sk, std::uint32_t priority)
{
    packet(sk).priority = priority;
}

void sock_set_sndbuf(sock *sk, int bytes)
{
    packet(sk).sndbuf = bytes;
}

sk_buff *__skb_recv_udp(sock *sk)
{
    packet_sock &udp = packet(sk);
    sk_buff *skb = udp.first;
    if (skb != nullptr) {
        udp.first = skb->next;
        skb->next = nullptr;
    }
    return skb;
}

int kernel_sendmsg(sock *sk, const kernel_msghdr *msg, const kvec *vec, std::size_t num,
                   std::size_t size)
{
    sim::machine &s = sim::the_machine();
    const packet_sock &sender = packet(sk);
    if ((msg->msg_flags & MSG_DONTWAIT) == 0 || sender.allocation != GFP_ATOMIC)
        s.expect_may_sleep("a send that may wait");
    if (sender.kind == socket_kind::udp)
        sim::failure("a receive socket is to send");
    std::size_t total = 0;
    for (std::size_t i = 0; i < num; ++i)
        total += vec[i].iov_len;
    if (total != size)
        sim::failure("a send of %zu bytes with %zu in its vectors", size, total);
    if (const int result = s.faults.use(service::send); result != 0)
        return result;
    if (s.options.keep_frames)
        keep_frame(sender, *msg, vec, num);
    return static_cast<int>(size);
}
