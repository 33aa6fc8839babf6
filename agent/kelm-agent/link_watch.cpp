// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/link_watch.h"

#include <array>
#include <cerrno>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include "libkelm/error.h"
#include "libkelm/netns.h"

namespace kelm_agent
{

link_watch::link_watch(const std::string &netns)
{
    kelm::in_netns(netns, [this] {
        fd_ = kelm::unique_fd(
            socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
        sockaddr_nl address = {};
        address.nl_family = AF_NETLINK;
        address.nl_groups = RTMGRP_LINK;
        if (!fd_ ||
            bind(fd_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
            kelm::throw_errno(errno, "cannot watch the network interfaces");
    });
}

// An overflow is a change too: only an empty queue ends this.
void link_watch::drain()
{
    std::array<char, 65536> sink;
    while (recv(fd_.get(), sink.data(), sink.size(), 0) >= 0 || errno == ENOBUFS || errno == EINTR)
        ;
}

} // namespace kelm_agent
