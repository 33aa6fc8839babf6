// SPDX-License-Identifier: GPL-2.0
//
// Network namespaces and the device notifier.
#pragma once

#include <cstdint>

#include "platform/label.h"

struct net;
struct net_device;
struct sock;

// Device events of which the engine takes notice.
inline constexpr unsigned long NETDEV_REGISTER = 5;
inline constexpr unsigned long NETDEV_UNREGISTER = 6;
inline constexpr int NOTIFY_OK = 1;

// Called in task context with no spinlock held, one event at a time; may sleep. info leads to
// the device.
struct notifier_block {
    int (*notifier_call)(notifier_block *nb, unsigned long event, void *info);
};

extern "C" {

// Before it returns, the callback gets NETDEV_REGISTER for every device of every namespace that
// exists, the initial namespace first. 0 or a negative error number. Task context.
[[nodiscard]] int register_netdevice_notifier(notifier_block *nb)
    KELM_PLATFORM(register_netdevice_notifier);

// Returns once the callback does not run and will not run again. It may be called meanwhile,
// with NETDEV_UNREGISTER for devices that exist. Task context.
void unregister_netdevice_notifier(notifier_block *nb) KELM_PLATFORM(unregister_netdevice_notifier);

// The device that an event is about, valid during the callback; its name, index and namespace.
[[nodiscard]] net_device *netdev_notifier_info_to_dev(void *info)
    KELM_PLATFORM(netdev_notifier_info_to_dev);
[[nodiscard]] const char *netdev_name(const net_device *dev) KELM_PLATFORM(netdev_name);
[[nodiscard]] unsigned int netdev_ifindex(const net_device *dev) KELM_PLATFORM(netdev_ifindex);
[[nodiscard]] net *dev_net(const net_device *dev) KELM_PLATFORM(dev_net);

// The namespace of a socket. Any context.
[[nodiscard]] net *sock_net(const sock *sk) KELM_PLATFORM(sock_net);

// The namespace's own count of the references that keep it alive. Costs nothing, any context.
[[nodiscard]] int net_refcount(const net *net) KELM_PLATFORM(net_refcount);
}
