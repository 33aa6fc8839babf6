/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Where kernels from 4.19 on differ in what the glue needs of them. Nothing else asks for the
 * kernel's version. Built and run: 6.1 and 6.12; the branches for older kernels are kept by their
 * headers alone.
 */
#ifndef KELM_PLATFORM_LINUX_COMPAT_H
#define KELM_PLATFORM_LINUX_COMPAT_H

#include <linux/hrtimer.h>
#include <linux/version.h>
#include <net/net_namespace.h>
#include <net/udp.h>

#if LINUX_VERSION_CODE < KERNEL_VERSION(4, 19, 0)
#error "kelm needs a kernel of the 4.19 series or later"
#endif
#ifndef CONFIG_64BIT
#error "kelm needs a 64-bit kernel"
#endif
#ifdef CONFIG_CFI_CLANG
#error                                                                                             \
    "kelm's C and C++ call each other through types that this kernel's control flow checks refuse"
#endif
#if defined(CONFIG_PREEMPTION) && !defined(CONFIG_TASKS_RCU)
#error "kelm cannot be unloaded safely from this kernel, which lacks CONFIG_TASKS_RCU"
#endif

/* What keeps a namespace alive: its own counter until 5.10, the one of all namespaces since. */
static inline int compat_net_refcount(const struct net *net)
{
#if LINUX_VERSION_CODE < KERNEL_VERSION(5, 11, 0)
    return refcount_read(&net->count);
#else
    return refcount_read(&net->ns.count);
#endif
}

/* One datagram without waiting, or NULL with an error number. Lost "peeked" in 5.2, took "noblock"
 * into the flags in 5.19. */
static inline struct sk_buff *compat_recv_udp(struct sock *sk, int *err)
{
    int off = 0;
#if LINUX_VERSION_CODE < KERNEL_VERSION(5, 2, 0)
    int peeked;

    return __skb_recv_udp(sk, 0, 1, &peeked, &off, err);
#elif LINUX_VERSION_CODE < KERNEL_VERSION(5, 19, 0)
    return __skb_recv_udp(sk, 0, 1, &off, err);
#else
    return __skb_recv_udp(sk, MSG_DONTWAIT, &off, err);
#endif
}

static inline void compat_hrtimer_setup(struct hrtimer *timer,
                                        enum hrtimer_restart (*function)(struct hrtimer *timer),
                                        clockid_t clock, enum hrtimer_mode mode)
{
#ifdef HAVE_HRTIMER_SETUP
    hrtimer_setup(timer, function, clock, mode);
#else
    hrtimer_init(timer, clock, mode);
    timer->function = function;
#endif
}

#endif
