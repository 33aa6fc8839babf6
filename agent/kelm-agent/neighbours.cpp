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

// Without an address, of a dump.
kelm::bytes neighbour_request(std::uint16_t type, std::uint16_t flags, std::uint8_t neighbour_flags,
                              std::uint32_t ifindex, int family, kelm::byte_view octets)
{
    nlmsghdr header = {};
    ndmsg body = {};
    rtattr attribute = {};
    const std::size_t attributes = octets.empty() ? 0 : sizeof attribute + octets.size();
    header.nlmsg_len = static_cast<std::uint32_t>(sizeof header + sizeof body + attributes);
    header.nlmsg_type = type;
    header.nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
    body.ndm_family = static_cast<std::uint8_t>(family);
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
    if (octets.empty())
        return request;
    append(attribute);
    request.insert(request.end(), octets.begin(), octets.end());
    return request;
}

// The value of one attribute, empty where it is missing.
kelm::byte_view attribute_value(kelm::byte_view attributes, std::uint16_t type)
{
    while (const auto head = kelm::read_as<rtattr>(attributes)) {
        if (head->rta_len < sizeof *head || head->rta_len > attributes.size())
            break;
        if (head->rta_type == type)
            return attributes.subspan(sizeof *head, head->rta_len - sizeof *head);
        attributes =
            attributes.subspan(std::min<std::size_t>(RTA_ALIGN(head->rta_len), attributes.size()));
    }
    return {};
}

// What one message of a dump says of the neighbour, if it is about that one.
std::optional<kelm::mac_address> address_in(const kelm::message &message, std::uint32_t ifindex,
                                            kelm::byte_view wanted)
{
    const auto body = kelm::read_as<ndmsg>(message.body);
    if (message.header.nlmsg_type != RTM_NEWNEIGH || !body || (body->ndm_state & usable) == 0 ||
        body->ndm_ifindex != static_cast<int>(ifindex))
        return std::nullopt;
    const auto attributes = message.body.subspan(sizeof *body);
    const auto mac = attribute_value(attributes, NDA_LLADDR);
    kelm::mac_address found;
    if (mac.size() != found.octets.size() ||
        !std::ranges::equal(attribute_value(attributes, NDA_DST), wanted))
        return std::nullopt;
    std::ranges::copy(mac, found.octets.begin());
    return found;
}

bool ends_dump(const kelm::message &message)
{
    return message.header.nlmsg_type == NLMSG_DONE || message.header.nlmsg_type == NLMSG_ERROR;
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

// The kernel answers while it is asked. Old ones only dump the whole table.
std::optional<kelm::mac_address> neighbours::find(std::uint32_t ifindex,
                                                  const kelm::ip_address &address) const
{
    const auto known = look_up(ifindex, address);
    if (!known) {
        const kelm::bytes use = neighbour_request(RTM_NEWNEIGH, NLM_F_CREATE | NLM_F_REPLACE,
                                                  NTF_USE, ifindex, address.family, address.view());
        (void)send(socket_.get(), use.data(), use.size(), 0);
    }
    return known;
}

std::optional<kelm::mac_address> neighbours::look_up(std::uint32_t ifindex,
                                                     const kelm::ip_address &address) const
{
    const kelm::bytes dump = neighbour_request(RTM_GETNEIGH, NLM_F_DUMP, 0, 0, address.family, {});
    std::array<std::uint8_t, 32768> answer;
    while (recv(socket_.get(), answer.data(), answer.size(), MSG_DONTWAIT) > 0)
        ; // a refusal of before
    (void)send(socket_.get(), dump.data(), dump.size(), 0);
    std::optional<kelm::mac_address> found;
    for (;;) {
        const ssize_t count = recv(socket_.get(), answer.data(), answer.size(), MSG_DONTWAIT);
        if (count <= 0)
            return found;
        kelm::message_reader reader(kelm::byte_view(answer).first(static_cast<std::size_t>(count)));
        while (const auto message = reader.next()) {
            if (ends_dump(*message))
                return found;
            if (const auto mac = address_in(*message, ifindex, address.view()))
                found = mac;
        }
    }
}

} // namespace kelm_agent
