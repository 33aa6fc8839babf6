// SPDX-License-Identifier: GPL-2.0
#include "libkelm/interfaces.h"

#include <algorithm>
#include <cerrno>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "libkelm/error.h"
#include "libkelm/netns.h"

namespace kelm
{

namespace
{

std::optional<ifreq> named_request(const std::string &name)
{
    ifreq req = {};
    if (name.empty() || name.size() >= sizeof req.ifr_name)
        return std::nullopt;
    std::ranges::copy(name, req.ifr_name);
    return req;
}

} // namespace

// A socket's requests concern the namespace that it was opened in.
interfaces::interfaces(const std::string &netns)
{
    in_netns(netns, [&] { socket_ = unique_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)); });
    if (!socket_)
        throw_errno(errno, "cannot open a socket");
}

std::optional<std::uint32_t> interfaces::index(const std::string &name) const
{
    auto req = named_request(name);
    if (!req || ioctl(socket_.get(), SIOCGIFINDEX, &*req) != 0)
        return std::nullopt;
    return static_cast<std::uint32_t>(req->ifr_ifindex);
}

std::string interfaces::name(std::uint32_t index) const
{
    ifreq req = {};
    req.ifr_ifindex = static_cast<int>(index);
    if (ioctl(socket_.get(), SIOCGIFNAME, &req) != 0)
        return "if" + std::to_string(index);
    return req.ifr_name;
}

std::optional<mac_address> interfaces::mac(const std::string &name) const
{
    auto req = named_request(name);
    if (!req || ioctl(socket_.get(), SIOCGIFHWADDR, &*req) != 0 ||
        req->ifr_hwaddr.sa_family != ARPHRD_ETHER)
        return std::nullopt;
    mac_address found;
    std::copy_n(req->ifr_hwaddr.sa_data, found.octets.size(), found.octets.begin());
    return found;
}

} // namespace kelm
