// SPDX-License-Identifier: GPL-2.0
//
// Reception: batched reads on the softirq thread. A UDP socket hands out the payload alone; the
// headers in front of it are written anew from what the ancillary data tells.
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <netinet/in.h>
#include <sys/uio.h>
#include <utility>

#include "platform/hosted/skbuff.h"
#include "platform/hosted/udp_frame.h"
#include "platform/user/buffer.h"
#include "platform/user/socket.h"

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
// that many have been read in one go, all that was there at its beginning has been, somebody
// floods the socket, and the timers, some tens of milliseconds late by now, come first.
constexpr std::size_t drain_limit = std::size_t{receive_buffer_bytes} / 512;

constexpr std::size_t batch_size = 32;
constexpr std::size_t longest_payload = 65535;
constexpr std::size_t control_room = 256; // addresses, hop limit and class of both families

// What one recvmmsg fills. One for all sockets: the softirq thread reads them one by one.
struct receive_batch {
    receive_batch()
    {
        for (std::size_t i = 0; i < batch_size; ++i)
            vectors[i] = {.iov_base = payloads[i].data(), .iov_len = longest_payload};
    }

    // Undoes what a receive call writes into its arguments.
    void reset()
    {
        for (std::size_t i = 0; i < batch_size; ++i) {
            msghdr &header = messages[i].msg_hdr;
            header = {};
            header.msg_name = &sources[i];
            header.msg_namelen = sizeof sources[i];
            header.msg_iov = &vectors[i];
            header.msg_iovlen = 1;
            header.msg_control = controls[i].bytes.data();
            header.msg_controllen = control_room;
        }
    }

    struct control {
        alignas(cmsghdr) std::array<std::uint8_t, control_room> bytes;
    };

    std::array<mmsghdr, batch_size> messages;
    std::array<iovec, batch_size> vectors;
    std::array<sockaddr_in6, batch_size> sources;
    std::array<control, batch_size> controls;
    std::array<std::array<std::uint8_t, longest_payload>, batch_size> payloads;
};

receive_batch &batch()
{
    static const auto buffers = std::make_unique<receive_batch>();
    return *buffers;
}

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

} // namespace

int prepare_udp_socket(int fd)
{
    // A failure here means smaller buffers than we would like, and is no reason to give up.
    set_buffer(fd, SO_RCVBUF, receive_buffer_bytes);

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

udp_sock::udp_sock(net *ns, unique_fd socket, bool is_counted)
    : host_sock(ns, std::move(socket), is_counted)
{
    (void)batch(); // made here, where a want of memory can be told
}

udp_sock::~udp_sock()
{
    remove_receiver(*this);
}

int udp_sock::bind(const void *addr, int addrlen)
{
    const int result = host_sock::bind(addr, addrlen);
    if (result != 0)
        return result;
    port = ntohs(static_cast<const sockaddr_in6 *>(addr)->sin6_port);
    return add_receiver(*this);
}

sk_buff *udp_sock::take()
{
    return std::exchange(received, nullptr);
}

void udp_sock::drain()
{
    receive_batch &into = batch();
    for (std::size_t total = 0; total < drain_limit; total += batch_size) {
        into.reset();
        const int count =
            recvmmsg(fd.get(), into.messages.data(), batch_size, MSG_DONTWAIT, nullptr);
        for (int i = 0; i < count; ++i) {
            const auto index = static_cast<std::size_t>(i);
            const mmsghdr &message = into.messages[index];
            receive(message.msg_hdr, std::span(into.payloads[index]).first(message.msg_len));
        }
        if (count < static_cast<int>(batch_size))
            return;
    }
}

void udp_sock::receive(const msghdr &message, std::span<const std::uint8_t> payload)
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

    if (data_ready == nullptr)
        return;
    received = hosted::udp_frame_skb(payload, arrival);
    data_ready(this); // also without memory for the datagram: the engine counts it
    kfree_skb(take());
}

} // namespace kelmd
