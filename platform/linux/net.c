// SPDX-License-Identifier: GPL-2.0
/*
 * Network namespaces and the device notifier.
 */
#include "platform/linux/net.h"

#include <linux/netdevice.h>
#include <linux/notifier.h>
#include <net/net_namespace.h>
#include <net/sock.h>

#include "platform/linux/compat.h"
#include "platform/linux/fault.h"
#include "platform/linux/glue.h"

#define CONDEMNED_WAIT (10 * HZ)

static engine_notifier *engine_notifier_block;
static bool closed; /* to namespaces that are made */
static bool unregistering;
static struct net *condemned; /* see let_go() */

/*
 * A namespace whose making has failed after its loopback device was there is taken apart without
 * anybody asking who holds it. Lets it look abandoned, and waits for the vrf to let go of it.
 */
static void let_go(struct net *net)
{
    unsigned long deadline = jiffies + CONDEMNED_WAIT;

    WRITE_ONCE(condemned, net);
    while (compat_net_refcount(net) > 1 && time_before(jiffies, deadline))
        schedule_timeout_uninterruptible(HZ / 20);
    WRITE_ONCE(condemned, NULL);
}

static int device_event(struct notifier_block *nb, unsigned long event, void *info)
{
    const struct net_device *dev = netdev_notifier_info_to_dev(info);
    struct net *net = dev_net(dev);
    int result;

    /* The engine knows the loopback device by its name, which any user can give to another device
     * in a namespace of his own. */
    if (!(dev->flags & IFF_LOOPBACK))
        return NOTIFY_DONE;
    if (event == NETDEV_UNREGISTER && compat_net_refcount(net) > 0 && !unregistering)
        let_go(net);
    if (event != NETDEV_REGISTER)
        return engine_notifier_block->notifier_call(engine_notifier_block, event, info);
    /* The replay goes over namespaces, too, that are dead and wait to be taken apart. */
    if (READ_ONCE(closed) || !maybe_get_net(net))
        return NOTIFY_DONE;
    result = engine_notifier_block->notifier_call(engine_notifier_block, event, info);
    put_net(net);
    return result;
}

/*
 * For the engine's cleanup thread, which lets go of a namespace whose making fails, must still run
 * then. Registering anything for all namespaces waits until those that are being made are done.
 */
void net_close(void)
{
    static struct pernet_operations nothing;

    WRITE_ONCE(closed, true);
    if (!register_pernet_subsys(&nothing))
        unregister_pernet_subsys(&nothing);
}

static struct notifier_block device_events = {.notifier_call = device_event};

int kelm_register_netdevice_notifier(engine_notifier *nb)
{
    engine_notifier_block = nb;
    return fault_due() ? -ENOMEM : register_netdevice_notifier(&device_events);
}

void kelm_unregister_netdevice_notifier(engine_notifier *nb)
{
    WRITE_ONCE(unregistering, true);
    unregister_netdevice_notifier(&device_events);
}

struct net_device *kelm_netdev_notifier_info_to_dev(void *info)
{
    return netdev_notifier_info_to_dev(info);
}

const char *kelm_netdev_name(const struct net_device *dev)
{
    return dev->name;
}

unsigned int kelm_netdev_ifindex(const struct net_device *dev)
{
    return dev->ifindex;
}

struct net *kelm_dev_net(const struct net_device *dev)
{
    return dev_net(dev);
}

struct net *kelm_sock_net(const struct sock *sk)
{
    return sock_net(sk);
}

int kelm_net_refcount(const struct net *net)
{
    return compat_net_refcount(net) - (net == READ_ONCE(condemned));
}
