// SPDX-License-Identifier: GPL-2.0
#include "platform/net.h"

#include "platform/sim/machine.h"
#include "platform/sim/net.h"

namespace sim
{

void get_net(net &ns)
{
    ++ns.refs;
}

void put_net(net &ns)
{
    if (--ns.refs == 0)
        the_machine().dying.push_back(&ns);
    else if (ns.refs < 0)
        fatal("namespace %s: a reference too many is dropped", ns.name.c_str());
}

net &live(net *ns)
{
    if (ns == nullptr || ns->dead)
        fatal("namespace %s is used after its end", ns != nullptr ? ns->name.c_str() : "null");
    return *ns;
}

const net &live(const net *ns)
{
    return live(const_cast<net *>(ns));
}

void machine::notify(net_device &device, unsigned long event)
{
    if (notifier == nullptr)
        return;
    expect_may_sleep("a device event");
    notifier->notifier_call(notifier, event, &device);
    expect_may_sleep("returning from a device event");
}

void machine::notify(net &ns, unsigned long event)
{
    for (const auto &[ifindex, device] : ns.devices)
        notify(*device, event);
}

} // namespace sim

int register_netdevice_notifier(notifier_block *nb)
{
    sim::machine &s = sim::the_machine();
    s.expect_may_sleep("register_netdevice_notifier");
    if (const int error = s.faults.use(sim::service::notifier); error != 0)
        return error;
    s.notifier = nb;
    for (const auto &ns : s.namespaces) {
        if (!ns->dead)
            s.notify(*ns, NETDEV_REGISTER);
    }
    return 0;
}

void unregister_netdevice_notifier(notifier_block *nb)
{
    sim::machine &s = sim::the_machine();
    s.expect_may_sleep("unregister_netdevice_notifier");
    if (s.notifier != nb)
        sim::failure("a notifier is unregistered that is not registered");
    if (s.options.devices_leave_at_stop) {
        for (const auto &ns : s.namespaces) {
            if (!ns->dead)
                s.notify(*ns, NETDEV_UNREGISTER);
        }
    }
    s.notifier = nullptr;
}

net_device *netdev_notifier_info_to_dev(void *info)
{
    return static_cast<net_device *>(info);
}

const char *netdev_name(const net_device *dev)
{
    return dev->name.c_str();
}

unsigned int netdev_ifindex(const net_device *dev)
{
    return dev->ifindex;
}

net *dev_net(const net_device *dev)
{
    return dev->netns;
}

int net_refcount(const net *net)
{
    return sim::live(net).refs;
}
