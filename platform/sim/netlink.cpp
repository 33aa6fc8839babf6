// SPDX-License-Identifier: GPL-2.0
//
// The kernel's end of netlink; the agent's is agent.cpp.
#include "platform/netlink.h"

#include "platform/module.h"
#include "platform/sim/machine.h"

constexpr int agent_unit = 31; // the only one of this machine

hosted::netlink_table &hosted::netlink_table_of(net *ns)
{
    return sim::live(ns).netlink;
}

sock *netlink_kernel_create(net *net, int unit, const netlink_kernel_cfg *cfg)
{
    sim::machine &s = sim::the_machine();
    s.expect_may_sleep("netlink_kernel_create");
    if (unit != agent_unit || cfg->input == nullptr)
        sim::failure("netlink unit %d, or no input function", unit);
    if (s.faults.use(sim::service::netlink_socket) != 0)
        return nullptr;
    sock *sk = hosted::netlink_kernel_open(&sim::live(net), cfg);
    net->sockets += sk != nullptr ? 1 : 0;
    return sk;
}

void netlink_kernel_release(sock *sk)
{
    sim::the_machine().expect_may_sleep("netlink_kernel_release");
    --sim::live(sk->netns).sockets;
    hosted::netlink_kernel_close(sk);
}

void module_get_self()
{
    sim::the_machine().module_held = true;
}
