/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The platform interface as this host implements it: what the glue, in C over the real kernel,
 * defines for the engine. The contracts are at the declarations in platform/; that the two agree is
 * proved by interface_check.cpp, which includes both.
 *
 * The engine's sock, sk_buff, net, net_device, task_struct and spinlock_t are the kernel's own.
 */
#ifndef KELM_PLATFORM_LINUX_GLUE_H
#define KELM_PLATFORM_LINUX_GLUE_H

/* The values of the engine's gfp_t. */
enum { ENGINE_GFP_ATOMIC, ENGINE_GFP_KERNEL };

#ifdef __cplusplus

using engine_gfp = gfp_t;
using engine_msghdr = kernel_msghdr;
using engine_netlink_cfg = netlink_kernel_cfg;
using engine_dump = netlink_callback;
using engine_dump_control = netlink_dump_control;
using engine_notifier = notifier_block;
using engine_timer = timer_list;

extern "C" {

#else

#include <linux/kernel.h>
#include <linux/netlink.h>
#include <linux/skbuff.h>
#include <linux/spinlock.h>

#include "platform/linux/engine_types.h"

typedef unsigned int engine_gfp; /* ENGINE_GFP_... */
typedef struct engine_timer engine_timer;

static inline gfp_t kernel_gfp(engine_gfp gfp)
{
    return gfp == ENGINE_GFP_KERNEL ? GFP_KERNEL : GFP_ATOMIC;
}

#endif

/* memory.c */
void *kelm_kmalloc(size_t size, engine_gfp gfp);
void *kelm_kzalloc(size_t size, engine_gfp gfp);
void kelm_kfree(const void *ptr);

/* printk.c */
void kelm_printk(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void kelm_WARN(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

/* random.c */
uint32_t kelm_prandom_u32(void);

/* kthread.c */
struct task_struct *kelm_kthread_create_on_node(int (*body)(void *argument), void *argument,
                                                int node, const char *name);
void kelm_wake_up_process(struct task_struct *task);
int kelm_kthread_stop(struct task_struct *task);
bool kelm_kthread_should_stop(void);
void kelm_schedule_timeout_interruptible(long ticks);

/* clock.c */
void kelm_ktime_get_real_ts64(struct timespec64 *ts);
void kelm_ktime_get_raw_ts64(struct timespec64 *ts);
uint64_t kelm_get_jiffies_64(void);
unsigned long kelm___usecs_to_jiffies(unsigned int usecs);
unsigned long kelm___msecs_to_jiffies(unsigned int msecs);
unsigned int kelm_jiffies_to_usecs(unsigned long ticks);

/* timer.c */
void kelm_timer_setup(engine_timer *timer, void (*function)(engine_timer *timer));
int kelm_mod_timer(engine_timer *timer, unsigned long expires);
int kelm_del_timer(engine_timer *timer);
int kelm_del_timer_sync(engine_timer *timer);
bool kelm_timer_pending(const engine_timer *timer);
unsigned long kelm_timer_expires(const engine_timer *timer);

/* spinlock.c */
void kelm_spin_lock_init(spinlock_t *lock, unsigned int rank, const char *name);
void kelm_spin_lock(spinlock_t *lock);
void kelm_spin_unlock(spinlock_t *lock);
void kelm_spin_lock_bh(spinlock_t *lock);
void kelm_spin_unlock_bh(spinlock_t *lock);

/* skbuff.c */
struct sk_buff *kelm_alloc_skb(unsigned int size, engine_gfp gfp);
struct sk_buff *kelm_skb_get(struct sk_buff *skb);
void kelm_consume_skb(struct sk_buff *skb);
void kelm_kfree_skb(struct sk_buff *skb);
uint8_t *kelm_skb_data(const struct sk_buff *skb);
unsigned int kelm_skb_len(const struct sk_buff *skb);
uint8_t *kelm_skb_head(const struct sk_buff *skb);
unsigned int kelm_skb_tailroom(const struct sk_buff *skb);
uint8_t *kelm_skb_put(struct sk_buff *skb, unsigned int len);
uint8_t *kelm_skb_push(struct sk_buff *skb, unsigned int len);
int kelm_pskb_expand_head(struct sk_buff *skb, int nhead, int ntail, engine_gfp gfp);
int kelm_skb_linearize_cow(struct sk_buff *skb);
uint8_t *kelm_skb_mac_header(const struct sk_buff *skb);
uint8_t *kelm_skb_network_header(const struct sk_buff *skb);
int kelm_skb_iif(const struct sk_buff *skb);
int kelm_skb_member_ifindex(const struct sk_buff *skb);
struct sock *kelm_skb_sk(const struct sk_buff *skb);
uint32_t kelm_netlink_skb_portid(const struct sk_buff *skb);
void kelm_netlink_skb_set_portid(struct sk_buff *skb, uint32_t portid);

/* checksum.c */
uint32_t kelm_csum_partial(const void *buff, int len, uint32_t sum);
uint16_t kelm_csum_tcpudp_magic(uint32_t saddr, uint32_t daddr, uint32_t len, uint8_t proto,
                                uint32_t sum);
uint16_t kelm_csum_ipv6_magic(const void *saddr, const void *daddr, uint32_t len, uint8_t proto,
                              uint32_t sum);

/* socket.c, and udp_receive.c for reception */
int kelm___sock_create(struct net *net, int family, int type, int protocol, struct sock **res,
                       int kern);
int kelm_kernel_bind(struct sock *sk, const void *addr, int addrlen);
void kelm_sock_release(struct sock *sk);
void kelm_sock_set_data_ready(struct sock *sk, void (*callback)(struct sock *sk), void *user_data);
struct kvec;
void kelm_sock_set_data_ahead(struct sock *sk,
                              void (*callback)(struct sock *sk, const struct kvec *payloads,
                                               size_t count));
void *kelm_sock_user_data(const struct sock *sk);
void kelm_sock_set_allocation(struct sock *sk, engine_gfp gfp);
void kelm_sock_set_priority(struct sock *sk, uint32_t priority);
void kelm_sock_set_sndbuf(struct sock *sk, int bytes);
struct sk_buff *kelm___skb_recv_udp(struct sock *sk);
int kelm_kernel_sendmsg(struct sock *sk, const engine_msghdr *msg, const struct kvec *vec,
                        size_t num, size_t size);

/* netlink.c, and netlink_dump.c for dumps */
bool kelm_capable(int capability);
struct sock *kelm_netlink_kernel_create(struct net *net, int unit, const engine_netlink_cfg *cfg);
void kelm_netlink_kernel_release(struct sock *sk);
int kelm_netlink_rcv_skb(struct sk_buff *skb, int (*step)(struct sk_buff *skb, struct nlmsghdr *nlh,
                                                          struct netlink_ext_ack *extack));
int kelm_netlink_dump_start(struct sock *sk, struct sk_buff *skb, const struct nlmsghdr *nlh,
                            const engine_dump_control *control);
struct nlmsghdr *kelm___nlmsg_put(struct sk_buff *skb, uint32_t portid, uint32_t seq, int type,
                                  int len, int flags);
int kelm_netlink_broadcast(struct sock *sk, struct sk_buff *skb, uint32_t portid, uint32_t group,
                           engine_gfp gfp);
int kelm_netlink_unicast(struct sock *sk, struct sk_buff *skb, uint32_t portid, int nonblock);

/* net.c */
int kelm_register_netdevice_notifier(engine_notifier *nb);
void kelm_unregister_netdevice_notifier(engine_notifier *nb);
struct net_device *kelm_netdev_notifier_info_to_dev(void *info);
const char *kelm_netdev_name(const struct net_device *dev);
unsigned int kelm_netdev_ifindex(const struct net_device *dev);
struct net *kelm_dev_net(const struct net_device *dev);
struct net *kelm_sock_net(const struct sock *sk);
int kelm_net_refcount(const struct net *net);

/* module.c */
void kelm_module_get_self(void);

/* The engine's entry points: platform/module.h. */
extern bool kelm_strict;
int kelm_init(void);
void kelm_exit(void);
void kelm_release(void);

#ifdef __cplusplus
}
#endif

#endif
