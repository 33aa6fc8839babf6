/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Structures of the platform interface as C sees them, under names that the kernel does not have.
 * interface_check.cpp proves that they are laid out as the engine's are.
 */

typedef struct engine_msghdr { /* kernel_msghdr of platform/socket.h */
    const void *msg_name;
    uint32_t msg_namelen;
    uint32_t msg_flags;
    const void *msg_control;
    size_t msg_controllen;
} engine_msghdr;

typedef struct engine_netlink_cfg { /* netlink_kernel_cfg of platform/netlink.h */
    unsigned int groups;
    void (*input)(struct sk_buff *skb);
} engine_netlink_cfg;

typedef struct engine_dump { /* netlink_callback of platform/netlink.h */
    struct sk_buff *skb;
    const struct nlmsghdr *nlh;
    void *data;
    long args[6];
    bool no_room;
} engine_dump;

typedef struct engine_dump_control { /* netlink_dump_control of platform/netlink.h */
    int (*start)(engine_dump *dump);
    int (*dump)(struct sk_buff *skb, engine_dump *dump);
    int (*done)(engine_dump *dump);
    void *data;
    uint32_t min_dump_alloc;
} engine_dump_control;

typedef struct engine_notifier { /* notifier_block of platform/net.h */
    int (*notifier_call)(struct engine_notifier *nb, unsigned long event, void *info);
} engine_notifier;
