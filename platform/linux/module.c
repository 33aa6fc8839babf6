// SPDX-License-Identifier: GPL-2.0
/*
 * kelm.ko: load and forced unload. The module holds a reference on itself, so rmmod asks for force.
 */
#include <linux/kmod.h>
#include <linux/module.h>
#include <linux/rcupdate.h>
#include <linux/socket.h>

#include "platform/linux/clock.h"
#include "platform/linux/glue.h"
#include "platform/linux/net.h"
#include "platform/linux/netlink.h"

module_param_named(strict, kelm_strict, bool, 0444);
MODULE_PARM_DESC(strict, "Require CAP_NET_ADMIN for all but reading own statistics, and believe "
                         "sequence numbers of authentic packets only");

/*
 * Where the kernel has IPv6 or packet sockets as modules: a socket of theirs loads them, but the
 * engine makes its own under locks for which they would wait for ever.
 */
static void __init load_protocols(void)
{
    if (IS_MODULE(CONFIG_IPV6))
        request_module("net-pf-%d", AF_INET6);
    if (IS_MODULE(CONFIG_PACKET))
        request_module("net-pf-%d", AF_PACKET);
}

/*
 * Takes down what kelm_exit() leaves standing, or a kelm_init() that failed half-way. When it
 * returns, nothing in the kernel leads into this module any more.
 */
static void take_down(void)
{
    netlink_close_requests();
    netlink_end_dumps();
    kelm_release();
    /* Tasks that were about to enter, found the door closed, and have a few instructions to go; and
     * softirqs with a datagram for a socket that is gone. */
    synchronize_rcu_tasks();
    netlink_close();
}

static int __init kelm_module_init(void)
{
    int err = netlink_open();

    if (err)
        return err;
    clock_tell_resolution();
    load_protocols();
    err = kelm_init();
    if (err)
        take_down();
    return err;
}

static void __exit kelm_module_exit(void)
{
    net_close();
    kelm_exit();
    take_down();
}

void kelm_module_get_self(void)
{
    __module_get(THIS_MODULE);
}

module_init(kelm_module_init);
module_exit(kelm_module_exit);

MODULE_DESCRIPTION("BFD (RFC 5880) offload: periodic transmission and failure detection");
MODULE_LICENSE("GPL");
MODULE_VERSION(KELM_VERSION);
