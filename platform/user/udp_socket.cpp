// SPDX-License-Identifier: GPL-2.0
#include "platform/user/udp_socket.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/hosted/skbuff.h"
#include "platform/hosted/udp_frame.h"
#include "platform/user/buffer.h"
#include "platform/user/host.h"

namespace kelmd
{

namespace
{

// Room for what arrives while the softirq thread does not get to run. The kernel counts 768 bytes
// to some 2 KiB for each datagram, depending on the driver: 4,000 to 10,000 of them, so at least
// one of every session of a large agent, which is what keeps it up. More room would not help those,
// and let a flood hold up the timers for longer.
constexpr int receive_buffer_bytes = 8 * 1024 * 1024;

// No more datagrams than this fit the buffer (512 bytes is less than any of them counts). So when
// that many have been read in one go, everything that was there at the beginning has been read,
// the socket is being flooded, and the timers, some tens of milliseconds late by now, come first.
constexpr std::size_t drain_limit = std::size_t{receive_buffer_bytes} / 512;

template<typename Value>
Value control_value(const cmsghdr &header)
{
    Value value;
    std::memcpy(&value, CMSG_DATA(&header), sizeof value);
    return value;
}

bool is(const cmsghdr &header, int level, int type)
{
    return header.cmsg_level == level && header.cmsg_type == type;
}

void read_control(const cmsghdr &header, hosted::udp_arrival &arrival)
{
    if (is(header, IPPROTO_IPV6, IPV6_PKTINFO)) { // IPv4 datagrams have it too, mapped
        const auto info = control_value<in6_pktinfo>(header);
        arrival.destination = info.ipi6_addr;
        arrival.iif = static_cast<int>(info.ipi6_ifindex);
    } else if (is(header, IPPROTO_IPV6, IPV6_HOPLIMIT) || is(header, IPPROTO_IP, IP_TTL)) {
        arrival.ttl = static_cast<std::uint8_t>(control_value<int>(header));
    } else if (is(header, IPPROTO_IPV6, IPV6_TCLASS)) {
        arrival.tos = static_cast<std::uint8_t>(control_value<int>(header));
    } else if (is(header, IPPROTO_IP, IP_TOS)) {
        arrival.tos = control_value<std::uint8_t>(header);
    }
}

hosted::udp_arrival read_arrival(const msghdr &message, std::uint16_t port)
{
    const auto &source = *static_cast<const sockaddr_in6 *>(message.msg_name);
    hosted::udp_arrival arrival{};
    arrival.source = source.sin6_addr;
    arrival.source_port = ntohs(source.sin6_port);
    arrival.destination_port = port;
    auto *const readable = const_cast<msghdr *>(&message); // as CMSG_NXTHDR wants it
    for (cmsghdr *header = CMSG_FIRSTHDR(readable); header != nullptr;
         header = CMSG_NXTHDR(readable, header))
        read_control(*header, arrival);
    return arrival;
}

// Asks for all that write_udp_headers needs to know. 0 or errno.
int set_needed_options(int fd)
{
    struct option {
        int level;
        int name;
        int value;
    };
    constexpr std::array<option, 6> needed{{
        {IPPROTO_IPV6, IPV6_V6ONLY, 0},
        {IPPROTO_IPV6, IPV6_RECVPKTINFO, 1},
        {IPPROTO_IPV6, IPV6_RECVHOPLIMIT, 1},
        {IPPROTO_IPV6, IPV6_RECVTCLASS, 1},
        {IPPROTO_IP, IP_RECVTTL, 1},
        {IPPROTO_IP, IP_RECVTOS, 1},
    }};
    for (const option &each : needed) {
        if (setsockopt(fd, each.level, each.name, &each.value, sizeof each.value) != 0)
            return errno;
    }
    return 0;
}

} // namespace

receive_batch::receive_batch()
{
    for (std::size_t i = 0; i < size; ++i)
        vectors_[i] = {.iov_base = payloads_[i].data(), .iov_len = longest_payload};
    reset(size);
}

std::size_t receive_batch::receive(int fd)
{
    reset(used_);
    const int count = recvmmsg(fd, messages_.data(), size, MSG_DONTWAIT, nullptr);
    used_ = count > 0 ? static_cast<std::size_t>(count) : 0;
    return used_;
}

// Undoes what a receive call writes into its arguments, of the first ones.
void receive_batch::reset(std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i) {
        msghdr &header = messages_[i].msg_hdr;
        header = {};
        header.msg_name = &sources_[i];
        header.msg_namelen = sizeof sources_[i];
        header.msg_iov = &vectors_[i];
        header.msg_iovlen = 1;
        header.msg_control = controls_[i].bytes.data();
        header.msg_controllen = control_room;
    }
}

udp_sock::udp_sock(net *ns, kelm::unique_fd socket, bool is_counted, softirq_thread &softirq,
                   receive_batch &batch)
    : host_sock(ns, std::move(socket), is_counted), softirq_(softirq), batch_(batch)
{
}

udp_sock::~udp_sock()
{
    softirq_.remove(*this);
}

int udp_sock::bind(const void *addr, int addrlen)
{
    const int result = host_sock::bind(addr, addrlen);
    if (result != 0)
        return result;
    port_ = ntohs(static_cast<const sockaddr_in6 *>(addr)->sin6_port);
    return softirq_.add(*this);
}

sk_buff *udp_sock::take()
{
    return std::exchange(received_, nullptr);
}

void udp_sock::drain()
{
    std::size_t count = receive_batch::size;
    for (std::size_t total = 0; total < drain_limit && count == receive_batch::size;
         total += count) {
        count = batch_.receive(fd.get());
        announce(count);
        for (std::size_t i = 0; i < count; ++i)
            receive(batch_.message(i), batch_.payload(i));
    }
}

void udp_sock::announce(std::size_t count)
{
    constexpr std::size_t worthwhile = 4;
    if (data_ahead == nullptr || count < worthwhile)
        return;
    std::array<kvec, receive_batch::size> payloads;
    for (std::size_t i = 0; i < count; ++i)
        payloads[i] = {batch_.payload(i).data(), batch_.payload(i).size()};
    data_ahead(this, payloads.data(), count);
}

void udp_sock::receive(const msghdr &message, std::span<const std::uint8_t> payload)
{
    if (data_ready == nullptr)
        return;
    received_ = hosted::udp_frame_skb(payload, read_arrival(message, port_));
    data_ready(this); // also without memory for the datagram: the engine counts it
    kfree_skb(take());
}

std::unique_ptr<host_sock> make_udp_sock(net *ns, bool counted)
{
    kelm::unique_fd fd(::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd)
        return nullptr;
    if (const int error = set_needed_options(fd.get()); error != 0) {
        errno = error;
        return nullptr;
    }
    set_buffer(fd.get(), SO_RCVBUF, receive_buffer_bytes);
    host &kelmd = the_host();
    return std::make_unique<udp_sock>(ns, std::move(fd), counted, kelmd.softirq, *kelmd.batch);
}

} // namespace kelmd

// Services

sk_buff *__skb_recv_udp(sock *sk)
{
    return static_cast<kelmd::udp_sock *>(sk)->take();
}
