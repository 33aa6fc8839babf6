// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/member_listener.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "kelm-agent/addressing.h"
#include "libkelm/error.h"
#include "libkelm/frame.h"
#include "libkelm/netns.h"

namespace kelm_agent
{

namespace
{

constexpr std::size_t udp_length = 8;

// The length of an IP header that is followed by UDP; 0 for other frames, and for headers with
// options, which BFD packets do not have.
std::size_t ip_header_length(kelm::byte_view frame)
{
    const std::size_t rest = frame.size() - ETH_HLEN;
    const std::uint32_t ethertype = static_cast<std::uint32_t>(frame[12] << 8 | frame[13]);
    const kelm::byte_view ip = frame.subspan(ETH_HLEN);
    if (ethertype == ETHERTYPE_IP && rest >= 20 && ip[0] == 0x45 && ip[9] == IPPROTO_UDP)
        return 20;
    if (ethertype == ETHERTYPE_IPV6 && rest >= 40 && ip[0] >> 4 == 6 && ip[6] == IPPROTO_UDP)
        return 40;
    return 0;
}

// A link may carry millions of frames a second, so the kernel passes only those that are received,
// for the port, and name no session. Offsets count from the start of the frame.
void filter_frames(int fd)
{
    constexpr std::uint32_t pass = 0x40000;
    constexpr std::uint32_t pkttype = static_cast<std::uint32_t>(SKF_AD_OFF + SKF_AD_PKTTYPE);
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, pkttype),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PACKET_OUTGOING, 16, 0),
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 12),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETHERTYPE_IP, 0, 6),
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, ETH_HLEN + 9),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_UDP, 0, 12),
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, ETH_HLEN + 20 + 2),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kelm::port_lag, 0, 10),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, ETH_HLEN + 20 + udp_length + 8),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0, 7, 8),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETHERTYPE_IPV6, 0, 7),
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, ETH_HLEN + 6),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_UDP, 0, 5),
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, ETH_HLEN + 40 + 2),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kelm::port_lag, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, ETH_HLEN + 40 + udp_length + 8),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, pass),
        BPF_STMT(BPF_RET | BPF_K, 0),
    };
    const sock_fprog filter = {std::size(program), program};
    if (setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) != 0)
        kelm::throw_errno(errno, "cannot filter a member link's packets");
}

void join_multicast(int fd, std::uint32_t ifindex)
{
    packet_mreq request = {};
    request.mr_ifindex = static_cast<int>(ifindex);
    request.mr_type = PACKET_MR_MULTICAST;
    request.mr_alen = ETH_ALEN;
    std::ranges::copy(lag_multicast.octets, request.mr_address);
    if (setsockopt(fd, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &request, sizeof request) != 0)
        kelm::throw_errno(errno, "cannot listen to a member link's multicast packets");
}

} // namespace

std::optional<kelm::packet_change> undirected_lag_packet(kelm::byte_view frame)
{
    if (frame.size() < ETH_HLEN)
        return std::nullopt;
    const std::size_t ip_length = ip_header_length(frame);
    const std::size_t bfd_offset = ETH_HLEN + ip_length + udp_length;
    if (ip_length == 0 || frame.size() < bfd_offset)
        return std::nullopt;
    // A short frame is padded: UDP knows where the packet ends.
    const std::size_t claimed =
        static_cast<std::size_t>(frame[bfd_offset - 4] << 8 | frame[bfd_offset - 3]);
    const std::size_t end = bfd_offset - udp_length + claimed;
    if (claimed < udp_length || end > frame.size())
        return std::nullopt;
    kelm::packet_change change = {
        0,
        0,
        0,
        ETH_HLEN,
        static_cast<std::uint32_t>(bfd_offset),
        {frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(end)}};
    const auto decoded = kelm::decode_frame(change);
    if (!decoded || decoded->destination_port != kelm::port_lag ||
        decoded->bfd.fields.your_discriminator != 0)
        return std::nullopt;
    return change;
}

member_listener::member_listener(const std::string &netns, std::uint32_t member_ifindex)
    : member_(member_ifindex)
{
    kelm::in_netns(netns, [this] {
        // No protocol until it is bound: nothing from other links gets in.
        fd_ = kelm::unique_fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        sockaddr_ll address = {};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(ETH_P_ALL);
        address.sll_ifindex = static_cast<int>(member_);
        if (!fd_)
            kelm::throw_errno(errno, "cannot listen to a member link");
        filter_frames(fd_.get());
        if (bind(fd_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
            kelm::throw_errno(errno, "cannot listen to a member link");
        join_multicast(fd_.get(), member_);
    });
}

std::optional<kelm::packet_change> member_listener::next()
{
    std::array<std::uint8_t, 2048> frame;
    for (;;) {
        const ssize_t count = recv(fd_.get(), frame.data(), frame.size(), 0);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return std::nullopt;
        auto found =
            undirected_lag_packet(kelm::byte_view(frame).first(static_cast<std::size_t>(count)));
        if (!found)
            continue;
        found->ifindex = found->member_ifindex = member_;
        return found;
    }
}

} // namespace kelm_agent
