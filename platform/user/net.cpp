// SPDX-License-Identifier: GPL-2.0
#include "platform/user/net.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sched.h>
#include <system_error>
#include <utility>

#include "platform/user/agent_listener.h"
#include "platform/user/context.h"
#include "platform/user/host.h"

net::net(kelm::unique_fd the_handle) : handle(std::move(the_handle)) {}

net::~net() = default;

namespace kelmd
{

void get_net(net &ns)
{
    ns.references.fetch_add(1, std::memory_order_relaxed);
}

void put_net(net &ns)
{
    if (ns.references.fetch_sub(1, std::memory_order_acq_rel) == 1)
        the_host().namespaces.reap_soon();
}

in_namespace::in_namespace(const net &ns)
{
    if (!ns.handle)
        return;
    kelm::unique_fd origin(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
    if (origin && setns(ns.handle.get(), CLONE_NEWNET) == 0)
        origin_ = std::move(origin);
    else
        error_ = errno;
}

in_namespace::~in_namespace()
{
    if (origin_ && setns(origin_.get(), CLONE_NEWNET) != 0)
        context_violated("cannot return to the initial network namespace: %s",
                         std::strerror(errno));
}

} // namespace kelmd

// Services

net_device *netdev_notifier_info_to_dev(void *info)
{
    return static_cast<net_device *>(info);
}

const char *netdev_name(const net_device * /*dev*/)
{
    return "lo";
}

unsigned int netdev_ifindex(const net_device * /*dev*/)
{
    return 1; // of "lo" in every namespace
}

net *dev_net(const net_device *dev)
{
    return dev->owner;
}

int net_refcount(const net *net)
{
    return net->references.load(std::memory_order_acquire);
}

int register_netdevice_notifier(notifier_block *nb)
{
    try {
        return kelmd::the_host().namespaces.start(nb);
    } catch (const std::system_error &error) { // engine code lies between here and main
        kelmd::log_line("%s", error.what());
        return -error.code().value();
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
}

void unregister_netdevice_notifier(notifier_block * /*nb*/)
{
    kelmd::the_host().namespaces.stop();
}

hosted::netlink_table &hosted::netlink_table_of(net *ns)
{
    return ns->netlink;
}
