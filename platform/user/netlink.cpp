// SPDX-License-Identifier: GPL-2.0
//
// Kernel netlink sockets: the hosts' common netlink, with a socket for agents in front of it.
#include "platform/netlink.h"

#include <cerrno>
#include <new>
#include <system_error>

#include "platform/hosted/netlink.h"
#include "platform/user/agent_listener.h"
#include "platform/user/context.h"
#include "platform/user/host.h"
#include "platform/user/net.h"

// Services

using namespace kelmd;

sock *netlink_kernel_create(net *net, int unit, const netlink_kernel_cfg *cfg)
{
    assert_may_sleep(__func__);
    if (unit != agent_netlink_unit)
        return nullptr;
    try {
        net->agents = std::make_unique<agent_listener>(the_host().loop, the_host().connections,
                                                       the_host().closer, *net);
    } catch (const std::system_error &error) {
        const int code = error.code().value();
        net->obstacle = {.what =
                             code == EADDRINUSE ? obstacle::agent_socket_taken : obstacle::other,
                         .call = "agent socket",
                         .error = code};
        return nullptr;
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
    sock *const sk = hosted::netlink_kernel_open(net, cfg);
    if (sk == nullptr)
        net->agents.reset();
    return sk;
}

void netlink_kernel_release(sock *sk)
{
    assert_may_sleep(__func__);
    the_host().namespaces.close_agents_of(*sock_net(sk));
    hosted::netlink_kernel_close(sk);
}
