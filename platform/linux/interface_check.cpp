// SPDX-License-Identifier: GPL-2.0
//
// Proves, at compile time, that the glue's C declarations are the engine's: nothing else compares
// the two, and the linker sees names only.
#include <cstddef>
#include <cstdint>

#include "platform/capability.h"
#include "platform/checksum.h"
#include "platform/clock.h"
#include "platform/kthread.h"
#include "platform/memory.h"
#include "platform/module.h"
#include "platform/net.h"
#include "platform/netlink.h"
#include "platform/printk.h"
#include "platform/random.h"
#include "platform/skbuff.h"
#include "platform/socket.h"
#include "platform/spinlock.h"
#include "platform/timer.h"

// After the engine's own: it gives their types its names.
#include "platform/linux/glue.h"

namespace in_c
{
#include "platform/linux/engine_types.h"
} // namespace in_c

namespace
{

#define SAME(service) static_assert(__is_same(decltype(::service), decltype(kelm_##service)))

SAME(kmalloc);
SAME(kzalloc);
SAME(kfree);
SAME(printk);
SAME(WARN);
SAME(prandom_u32);
SAME(capable);
SAME(kthread_create_on_node);
SAME(wake_up_process);
SAME(kthread_stop);
SAME(kthread_should_stop);
SAME(schedule_timeout_interruptible);
SAME(ktime_get_real_ts64);
SAME(ktime_get_raw_ts64);
SAME(get_jiffies_64);
SAME(__usecs_to_jiffies);
SAME(__msecs_to_jiffies);
SAME(jiffies_to_usecs);
SAME(timer_setup);
SAME(mod_timer);
SAME(del_timer);
SAME(del_timer_sync);
SAME(timer_pending);
SAME(timer_expires);
SAME(spin_lock_init);
SAME(spin_lock);
SAME(spin_unlock);
SAME(spin_lock_bh);
SAME(spin_unlock_bh);
SAME(alloc_skb);
SAME(skb_get);
SAME(consume_skb);
SAME(kfree_skb);
SAME(skb_data);
SAME(skb_len);
SAME(skb_head);
SAME(skb_tailroom);
SAME(skb_put);
SAME(skb_push);
SAME(pskb_expand_head);
SAME(skb_linearize_cow);
SAME(skb_mac_header);
SAME(skb_network_header);
SAME(skb_iif);
SAME(skb_member_ifindex);
SAME(skb_sk);
SAME(netlink_skb_portid);
SAME(netlink_skb_set_portid);
SAME(csum_partial);
SAME(csum_tcpudp_magic);
SAME(csum_ipv6_magic);
SAME(__sock_create);
SAME(kernel_bind);
SAME(sock_release);
SAME(sock_set_data_ready);
SAME(sock_set_data_ahead);
SAME(sock_user_data);
SAME(sock_set_allocation);
SAME(sock_set_priority);
SAME(sock_set_sndbuf);
SAME(__skb_recv_udp);
SAME(kernel_sendmsg);
SAME(netlink_kernel_create);
SAME(netlink_kernel_release);
SAME(netlink_rcv_skb);
SAME(netlink_dump_start);
SAME(__nlmsg_put);
SAME(netlink_broadcast);
SAME(netlink_unicast);
SAME(register_netdevice_notifier);
SAME(unregister_netdevice_notifier);
SAME(netdev_notifier_info_to_dev);
SAME(netdev_name);
SAME(netdev_ifindex);
SAME(dev_net);
SAME(sock_net);
SAME(net_refcount);
SAME(module_get_self);

#undef SAME

#define SAME_SIZE(type) static_assert(sizeof(type) == sizeof(in_c::type))
#define SAME_PLACE(type, member)                                                                   \
    static_assert(offsetof(type, member) == offsetof(in_c::type, member) &&                        \
                  sizeof(type::member) == sizeof(in_c::type::member))

SAME_SIZE(engine_msghdr);
SAME_PLACE(engine_msghdr, msg_name);
SAME_PLACE(engine_msghdr, msg_namelen);
SAME_PLACE(engine_msghdr, msg_flags);
SAME_PLACE(engine_msghdr, msg_control);
SAME_PLACE(engine_msghdr, msg_controllen);

SAME_SIZE(engine_netlink_cfg);
SAME_PLACE(engine_netlink_cfg, groups);
SAME_PLACE(engine_netlink_cfg, input);

SAME_SIZE(engine_dump);
SAME_PLACE(engine_dump, skb);
SAME_PLACE(engine_dump, nlh);
SAME_PLACE(engine_dump, data);
SAME_PLACE(engine_dump, args);
SAME_PLACE(engine_dump, no_room);

SAME_SIZE(engine_dump_control);
SAME_PLACE(engine_dump_control, start);
SAME_PLACE(engine_dump_control, dump);
SAME_PLACE(engine_dump_control, done);
SAME_PLACE(engine_dump_control, data);
SAME_PLACE(engine_dump_control, min_dump_alloc);

SAME_SIZE(engine_notifier);
SAME_PLACE(engine_notifier, notifier_call);

// The kernel's own on 64-bit machines: struct timespec64, struct kvec.
static_assert(sizeof(timespec64) == 16 && offsetof(timespec64, tv_nsec) == 8);
static_assert(sizeof(kvec) == 16 && offsetof(kvec, iov_len) == 8);

// What C calls engine_gfp.
static_assert(sizeof(gfp_t) == sizeof(unsigned));
static_assert(GFP_ATOMIC == gfp_t{ENGINE_GFP_ATOMIC} && GFP_KERNEL == gfp_t{ENGINE_GFP_KERNEL});

} // namespace
