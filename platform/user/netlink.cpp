// SPDX-License-Identifier: GPL-2.0
//
// Kernel netlink sockets: the hosts' common netlink, with the agents' socket in front of it.
#include "platform/netlink.h"

#include <cerrno>
#include <new>
#include <system_error>

#include "platform/hosted/netlink.h"
#include "platform/user/agent_socket.h"
#include "platform/user/context.h"
#include "platform/user/namespaces.h"
#include "platform/user/net.h"

namespace
{

using namespace kelmd;

constexpr int kelm_unit = 31; // the one that agent_socket_name stands for

} // namespace

sock *netlink_kernel_create(net *net, int unit, const netlink_kernel_cfg *cfg)
{
    assert_may_sleep(__func__);
    if (unit != kelm_unit)
        return nullptr;
    try {
        net->agents = std::make_unique<agent_listener>(namespaces().loop(), *net);
    } catch (const std::system_error &error) {
        const int code = error.code().value();
        net->obstacle = {.what =
                             code == EADDRINUSE ? obstacle::AGENT_SOCKET_TAKEN : obstacle::OTHER,
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
    net *const ns = sock_net(sk);
    namespaces().close_agents_of(*ns);
    hosted::netlink_kernel_close(sk);
}
