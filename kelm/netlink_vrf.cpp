// SPDX-License-Identifier: GPL-2.0
//
// Vrfs, one per network namespace: created when the namespace's "lo" is registered, found by
// namespace, reference counted, unlinked by the cleanup thread once nothing but our own transmit
// sockets keeps the namespace alive, and destroyed by that thread at their last reference.
#include "kelm/netlink_vrf.h"

#include "kelm/guard.h"
#include "kelm/log.h"
#include "kelm/netlink.h"
#include "kelm/record.h"
#include "kelm/rx_table.h"
#include "kelm/sockets.h"
#include "kelm/tx_table.h"
#include "platform/err.h"
#include "platform/kthread.h"

constinit spinlock_t kelm_vrf_lock = {};
constinit intrusive_list<kelm_vrf, by_vrfs> kelm_vrf_list;

namespace
{
constexpr long cleanup_period_ticks = 25;

struct by_leaving {
    static constexpr list_link kelm_vrf::*member() { return &kelm_vrf::leaving; }
};
using leaving_list = intrusive_list<kelm_vrf, by_leaving>;

constinit leaving_list unreferenced_vrfs; // to be destroyed; guarded by kelm_vrf_lock

// Creates the sockets of a new vrf; on failure undoes what was done, in reverse.
int create_sockets(kelm_vrf *vrf)
{
    const netlink_kernel_cfg cfg = {.groups = KELM_NLG_NUM, .input = receive_netlink};
    vrf->netlink_sock = netlink_kernel_create(vrf->net, KELM_NETLINK_UNIT, &cfg);
    if (vrf->netlink_sock == nullptr) {
        netlink_log(1, "Failed to register netlink protocol");
        return -ENOMEM;
    }
    int err = create_rx_sockets(vrf);
    if (err == 0) {
        err = create_tx_sockets(vrf);
        if (err == 0)
            return 0;
        release_rx_sockets(vrf);
    }
    netlink_kernel_release(vrf->netlink_sock);
    return err;
}

kelm_vrf *vrf_create(net *net)
{
    kelm_vrf *vrf = new_record<kelm_vrf>(GFP_KERNEL);
    if (vrf == nullptr)
        return nullptr;
    vrf->net = net;
    vrf->refcount = 1;
    if (create_sockets(vrf) == 0)
        return vrf;
    delete_record(vrf);
    return nullptr;
}

// The one device that every namespace has from its first to its last moment.
bool is_loopback(const char *name)
{
    return name[0] == 'l' && name[1] == 'o' && name[2] == '\0';
}

void vrf_init(net *net)
{
    kelm_vrf *vrf = vrf_create(net);
    if (vrf == nullptr) {
        netlink_log(1, "Unable to create vrf");
        return;
    }
    {
        bh_guard lock(kelm_vrf_lock);
        kelm_vrf_list.push_front(*vrf);
    }
    netlink_log(2, "Created vrf %p", static_cast<void *>(vrf));
}

void stop_reception(kelm_vrf *vrf)
{
    kelm_rx_clear(vrf);
    release_rx_sockets(vrf);
}

void destroy_vrf(kelm_vrf *vrf)
{
    // Reception first: its callbacks multicast on the netlink socket. Transmission last: its
    // sockets are what keeps the namespace alive.
    stop_reception(vrf);
    netlink_kernel_release(vrf->netlink_sock);
    kelm_tx_clear(vrf);
    release_tx_sockets(vrf);
    delete_record(vrf);
    netlink_log(2, "Destroyed vrf %p", static_cast<void *>(vrf));
}

// Destroys the vrfs that have lost their last reference; returns how many.
int destroy_unreferenced_vrfs()
{
    leaving_list vrfs;
    {
        bh_guard lock(kelm_vrf_lock);
        vrfs.take(unreferenced_vrfs);
    }
    int destroyed = 0;
    for (; kelm_vrf *vrf = vrfs.pop_front(); ++destroyed)
        destroy_vrf(vrf);
    return destroyed;
}

// Whether only this vrf's own sockets still hold the namespace, which is otherwise abandoned.
bool netns_pinned_by_kelm(const kelm_vrf &vrf)
{
    return vrf.nrefs != 0 && net_refcount(vrf.net) == vrf.nrefs;
}

// Takes every vrf that should_go picks out of kelm_vrf_list, lets empty remove the sessions, which
// hold references on their vrf, and drops the list's references. Returns how many there were.
template<class Pick>
int retire_vrfs(Pick should_go, void (*empty)(kelm_vrf *vrf))
{
    leaving_list leaving;
    {
        bh_guard lock(kelm_vrf_lock);
        kelm_vrf_list.for_each([&](kelm_vrf &vrf) {
            if (!should_go(vrf))
                return;
            netlink_log(2, "Removing vrf %p from list", static_cast<void *>(&vrf));
            kelm_vrf_list.unlink(vrf);
            leaving.push_back(vrf);
        });
    }
    int dropped = 0;
    for (; kelm_vrf *vrf = leaving.pop_front(); ++dropped) {
        empty(vrf);
        kelm_netlink_put_vrf(vrf);
    }
    return dropped;
}
} // namespace

void vrf_list_init()
{
    spin_lock_init(&kelm_vrf_lock, rank_vrf_list, "kelm_vrf_lock");
}

int netdev_callback(notifier_block *, unsigned long event, void *info)
{
    const net_device *dev = netdev_notifier_info_to_dev(info);
    if (!is_loopback(netdev_name(dev)))
        return NOTIFY_OK;
    net *net = dev_net(dev);
    netlink_log(2, "Received netdev type %lx for dev %s(%u) namespace %p", event, netdev_name(dev),
                netdev_ifindex(dev), static_cast<void *>(net));
    if (event == NETDEV_REGISTER) {
        vrf_init(net);
    } else if (event == NETDEV_UNREGISTER) {
        if (const vrf_ref vrf = find_vrf(net))
            WARN("Found Vrf %p (net: %p)", static_cast<void *>(vrf.get()),
                 static_cast<void *>(net));
    }
    return NOTIFY_OK;
}

void kelm_netlink_get_vrf(kelm_vrf *vrf)
{
    vrf->refcount.fetch_add(1, std::memory_order_relaxed);
}

void kelm_netlink_put_vrf(kelm_vrf *vrf)
{
    if (vrf->refcount.fetch_sub(1, std::memory_order_acq_rel) != 1)
        return;
    netlink_log(3, "Deleting VRF on last ref %p", static_cast<void *>(vrf));
    bh_guard lock(kelm_vrf_lock);
    unreferenced_vrfs.push_back(*vrf);
}

vrf_ref find_vrf(net *net)
{
    bh_guard lock(kelm_vrf_lock);
    for (kelm_vrf *vrf = kelm_vrf_list.front(); vrf != nullptr; vrf = kelm_vrf_list.next(*vrf)) {
        if (vrf->net == net) {
            netlink_log(3, "Found existing vrf");
            return vrf_ref(vrf);
        }
    }
    return {};
}

vrf_ref first_vrf()
{
    bh_guard lock(kelm_vrf_lock);
    return vrf_ref(kelm_vrf_list.front());
}

vrf_ref last_vrf()
{
    bh_guard lock(kelm_vrf_lock);
    return vrf_ref(kelm_vrf_list.back());
}

vrf_ref next_vrf(kelm_vrf *vrf)
{
    bh_guard lock(kelm_vrf_lock);
    return vrf_ref(kelm_vrf_list.is_linked(*vrf) ? kelm_vrf_list.next(*vrf) : nullptr);
}

int kelm_vrf_cleanup(void *)
{
    while (!kthread_should_stop()) {
        // No session can be added to a vrf that has been emptied: the socket of an agent that asked
        // for one would hold the namespace.
        const int retired = retire_vrfs(netns_pinned_by_kelm, kelm_rx_clear);
        const int destroyed = destroy_unreferenced_vrfs();
        if (retired + destroyed == 0)
            schedule_timeout_interruptible(cleanup_period_ticks);
    }
    return 0;
}

void release_all_vrfs()
{
    // Without receive sockets no softirq is left that could hold a vrf.
    retire_vrfs([](const kelm_vrf &) { return true; }, stop_reception);
    destroy_unreferenced_vrfs();
}
