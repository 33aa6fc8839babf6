// SPDX-License-Identifier: GPL-2.0
/*
 * Dumps. The kernel calls the engine for them long after the request, whenever the agent reads or
 * closes its socket; so each one that is open is on a list, from which a forced unload ends it.
 */
#include <linux/list.h>
#include <linux/rcupdate.h>
#include <linux/slab.h>
#include <net/sock.h>

#include "platform/linux/glue.h"
#include "platform/linux/netlink.h"

/*
 * How long a datagram is, the kernel decides by what the agent reads with. Only a single message
 * that needs more makes it longer: up to a frame of 64 KiB with headers. Bytes.
 */
#define USUAL_ROOM (8 * 1024)
#define GREATEST_ROOM (68 * 1024)

struct open_dump {
    struct list_head list;
    struct netlink_callback *cb; /* the kernel's, in the agent's socket */
    engine_dump dump;            /* the engine's */
    int (*dump_step)(struct sk_buff *skb, engine_dump *dump);
    int (*done)(engine_dump *dump);
};

static LIST_HEAD(open_dumps);
static DEFINE_SPINLOCK(open_dumps_lock);

static int start(struct netlink_callback *cb)
{
    const engine_dump_control *control = cb->data;
    struct open_dump *open = kelm_kzalloc(sizeof(*open), ENGINE_GFP_KERNEL);
    int err;

    if (!open)
        return -ENOMEM;
    open->cb = cb;
    open->dump = (engine_dump){.skb = cb->skb, .nlh = cb->nlh, .data = control->data};
    open->dump_step = control->dump;
    open->done = control->done;
    err = control->start(&open->dump);
    if (err) {
        kfree(open);
        return err;
    }
    cb->data = open;
    spin_lock(&open_dumps_lock);
    list_add(&open->list, &open_dumps);
    spin_unlock(&open_dumps_lock);
    return 0;
}

/*
 * Gives an empty buffer the greatest room, behind one message only: see kelm_skb_tailroom(). Not
 * all that the allocator gives: agents have been told how long a datagram can be. And an agent's
 * socket filter, which can read from where the headers are, finds its message there.
 */
static int enlarge(struct sk_buff *skb)
{
    unsigned int room = max_t(unsigned int, skb_tailroom(skb), USUAL_ROOM);
    int err = pskb_expand_head(skb, 0, GREATEST_ROOM - skb_tailroom(skb),
                               GFP_KERNEL | __GFP_NOWARN | __GFP_NORETRY);

    if (err)
        return err;
    skb_reserve(skb, skb_tailroom(skb) - GREATEST_ROOM);
    skb->reserved_tailroom = GREATEST_ROOM - room + NLMSG_SPACE(sizeof(int)); /* NLMSG_DONE */
    skb_reset_network_header(skb);
    skb_reset_mac_header(skb);
    return 0;
}

static int fill(struct open_dump *open, struct sk_buff *skb)
{
    int result = open->dump_step(skb, &open->dump);

    if (!open->dump.no_room)
        return result;
    result = enlarge(skb);
    if (result)
        return result;
    open->dump.no_room = false;
    result = open->dump_step(skb, &open->dump);
    skb->reserved_tailroom = 0;
    return result;
}

static int dump(struct sk_buff *skb, struct netlink_callback *cb)
{
    struct open_dump *open = cb->data;
    int inside = srcu_read_lock(&agents_inside);
    int result = fill(open, skb);

    srcu_read_unlock(&agents_inside, inside);
    return result;
}

static void end(struct open_dump *open)
{
    open->done(&open->dump);
    kfree(open);
}

static int done(struct netlink_callback *cb)
{
    struct open_dump *open = cb->data;
    int inside = srcu_read_lock(&agents_inside);

    spin_lock(&open_dumps_lock);
    list_del(&open->list);
    spin_unlock(&open_dumps_lock);
    end(open);
    srcu_read_unlock(&agents_inside, inside);
    return 0;
}

/*
 * The request as the dump keeps it: a copy, because the buffer that brought it is charged to the
 * module's socket, which a dump outlives in a forced unload.
 */
static struct sk_buff *copy_request(const struct sk_buff *skb, const struct nlmsghdr *nlh)
{
    struct sk_buff *request = kelm_alloc_skb(nlh->nlmsg_len, ENGINE_GFP_KERNEL);

    if (!request)
        return NULL;
    memcpy(request->cb, skb->cb, sizeof(request->cb));
    skb_put_data(request, nlh, nlh->nlmsg_len);
    return request;
}

/*
 * __netlink_dump_start() rather than netlink_dump_start(): no reference on the module, which a
 * forced unload would not wait for and the dump's end would give back too late.
 */
int kelm_netlink_dump_start(struct sock *sk, struct sk_buff *skb, const struct nlmsghdr *nlh,
                            const engine_dump_control *control)
{
    struct netlink_dump_control kernel_control = {
        .start = start,
        .dump = dump,
        .done = done,
        .data = (void *)control,
        .min_dump_alloc = control->min_dump_alloc,
    };
    struct sk_buff *request = copy_request(skb, nlh);
    int err;

    if (!request)
        return -ENOMEM;
    err = __netlink_dump_start(sk, request, (struct nlmsghdr *)request->data, &kernel_control);
    consume_skb(request); /* the dump has a reference of its own */
    return err;
}

/*
 * Leaves the kernel's state of a dump with functions that stay when the module goes: the next read
 * ends the dump with -EOPNOTSUPP. Their arguments do not matter, they look at none.
 */
static void orphan(struct netlink_callback *cb)
{
    void *unsupported = sock_no_bind;

    WRITE_ONCE(cb->dump, unsupported);
    WRITE_ONCE(cb->done, unsupported);
}

void netlink_end_dumps(void)
{
    struct open_dump *open, *next;

    spin_lock(&open_dumps_lock);
    list_for_each_entry(open, &open_dumps, list)
        orphan(open->cb);
    spin_unlock(&open_dumps_lock);

    /* A task that had fetched the old functions has entered them after the first call, and left
     * them after the second. */
    synchronize_rcu_tasks();
    synchronize_srcu(&agents_inside);

    list_for_each_entry_safe(open, next, &open_dumps, list)
        end(open);
}
