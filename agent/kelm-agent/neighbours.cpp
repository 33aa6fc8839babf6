// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/neighbours.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include "libkelm/error.h"
#include "libkelm/message.h"
#include "libkelm/netns.h"

namespace kelm_agent
{

namespace
{

// The states in which the kernel uses the address that it has.
constexpr std::uint16_t usable =
    NUD_PERMANENT | NUD_NOARP | NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE;

kelm::bytes neighbour_request(std::uint16_t type, std::uint16_t flags, std::uint8_t neighbour_flags,
                              std::uint32_t ifindex, const kelm::ip_address &address)
{
    const auto octets = address.view();
    nlmsghdr header = {};
    ndmsg body = {};
    rtattr attribute = {};
    header.nlmsg_len =
        static_cast<std::uint32_t>(sizeof header + sizeof body + sizeof attribute + octets.size());
    header.nlmsg_type = type;
    header.nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
    body.ndm_family = static_cast<std::uint8_t>(address.family);
    body.ndm_ifindex = static_cast<int>(ifindex);
    body.ndm_flags = neighbour_flags;
    attribute.rta_type = NDA_DST;
    attribute.rta_len = static_cast<std::uint16_t>(sizeof attribute + octets.size());

    kelm::bytes request;
    const auto append = [&](const auto &piece) {
        const auto *const start = reinterpret_cast<const std::uint8_t *>(&piece);
        request.insert(request.end(), start, start + sizeof piece);
    };
    append(header);
    append(body);
    append(attribute);
    request.insert(request.end(), octets.begin(), octets.end());
    return request;
}

std::optional<kelm::mac_address> link_layer_address(kelm::byte_view attributes)
{
    while (const auto head = kelm::read_as<rtattr>(attributes)) {
        if (head->rta_len < sizeof *head || head->rta_len > attributes.size())
            return std::nullopt;
        const auto value = attributes.subspan(sizeof *head, head->rta_len - sizeof *head);
        kelm::mac_address found;
        if (head->rta_type == NDA_LLADDR && value.size() == found.octets.size()) {
            std::ranges::copy(value, found.octets.begin());
            return found;
        }
        attributes =
            attributes.subspan(std::min<std::size_t>(RTA_ALIGN(head->rta_len), attributes.size()));
    }
    return std::nullopt;
}

std::optional<kelm::mac_address> address_in(kelm::byte_view datagram)
{
    kelm::message_reader reader(datagram);
    const auto message = reader.next();
    if (!message || message->header.nlmsg_type != RTM_NEWNEIGH)
        return std::nullopt;
    const auto body = kelm::read_as<ndmsg>(message->body);
    if (!body || (body->ndm_state & usable) == 0)
        return std::nullopt;
    return link_layer_address(message->body.subspan(sizeof *body));
}

} // namespace

neighbours::neighbours(const std::string &netns)
{
    kelm::in_netns(netns, [this] {
        socket_ = kelm::unique_fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
        if (!socket_)
            kelm::throw_errno(errno, "cannot ask for neighbours");
    });
}

// The kernel answers before send() returns.
std::optional<kelm::mac_address> neighbours::find(std::uint32_t ifindex,
                                                  const kelm::ip_address &address) const
{
    std::array<std::uint8_t, 8192> answer;
    const auto converse = [&](const kelm::bytes &request) {
        (void)send(socket_.get(), request.data(), request.size(), 0);
        const ssize_t count = recv(socket_.get(), answer.data(), answer.size(), MSG_DONTWAIT);
        return kelm::byte_view(answer).first(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    };
    const auto found =
        address_in(converse(neighbour_request(RTM_GETNEIGH, 0, 0, ifindex, address)));
    if (!found)
        (void)converse(neighbour_request(RTM_NEWNEIGH, NLM_F_ACK | NLM_F_CREATE | NLM_F_REPLACE,
                                         NTF_USE, ifindex, address));
    return found;
}

} // namespace kelm_agent
