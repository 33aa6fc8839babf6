// SPDX-License-Identifier: GPL-2.0
//
// Namespaces as the engine sees them, and the way in and out.
#include "platform/user/net.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sched.h>
#include <system_error>

#include "platform/user/agent_socket.h"
#include "platform/user/context.h"
#include "platform/user/log.h"
#include "platform/user/namespaces.h"
#include "platform/user/system_call.h"

net::net(kelmd::netns_key the_key, kelmd::unique_fd the_handle, bool is_initial)
    : key(the_key), handle(std::move(the_handle)), initial(is_initial)
{
}

net::~net() = default;

namespace kelmd
{

int initial_namespace_fd()
{
    static const unique_fd initial(
        checked("/proc/self/ns/net", open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC)));
    return initial.get();
}

void get_net(net &ns)
{
    ns.references.fetch_add(1, std::memory_order_relaxed);
}

void put_net(net &ns)
{
    if (ns.references.fetch_sub(1, std::memory_order_acq_rel) == 1)
        namespaces().reap_soon();
}

in_namespace::in_namespace(const net &ns)
{
    if (ns.initial)
        return;
    try {
        (void)initial_namespace_fd(); // opened before it is left for the first time
    } catch (const std::system_error &error) {
        error_ = error.code().value();
        return;
    }
    if (setns(ns.handle.get(), CLONE_NEWNET) == 0)
        entered_ = true;
    else
        error_ = errno;
}

in_namespace::~in_namespace()
{
    if (entered_ && setns(initial_namespace_fd(), CLONE_NEWNET) != 0)
        context_violated("cannot return to the initial network namespace: %s",
                         std::strerror(errno));
}

} // namespace kelmd

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
        return kelmd::namespaces().start(nb);
    } catch (const std::system_error &error) { // engine code lies between here and main
        kelmd::log_line("%s", error.what());
        return -error.code().value();
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
}

void unregister_netdevice_notifier(notifier_block * /*nb*/)
{
    kelmd::namespaces().stop();
}

hosted::netlink_table &hosted::netlink_table_of(net *ns)
{
    return ns->netlink;
}
