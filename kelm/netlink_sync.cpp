// SPDX-License-Identifier: GPL-2.0
//
// Synchronisation with a restarted agent: the dump of everything a vrf holds, and mark and sweep,
// which empties the vrfs that no agent has claimed since the mark.
#include "kelm/netlink_sync.h"

#include "kelm/dump.h"
#include "kelm/guard.h"
#include "kelm/log.h"
#include "kelm/message.h"
#include "kelm/netlink_vrf.h"
#include "kelm/rx_table.h"
#include "kelm/tx_table.h"
#include "platform/err.h"

constinit relaxed<std::int32_t> vrf_mark(0);

namespace
{
constexpr int sweep_batch_size = 16;

constexpr dump_kind sync_kind = {"sync", {kelm_rx_sync, kelm_tx_sync, nullptr}};

int do_sync(sk_buff *skb, netlink_callback *dump)
{
    return dump_rxtx(skb, dump, sync_kind, false);
}

// Collects the next unmarked vrfs, in list order, and marks them; returns how many.
int collect_unmarked(vrf_ref (&toclear)[sweep_batch_size])
{
    int found = 0;
    bh_guard lock(kelm_vrf_lock);
    for (kelm_vrf *vrf = kelm_vrf_list.front(); vrf != nullptr && found < sweep_batch_size;
         vrf = kelm_vrf_list.next(*vrf)) {
        if (vrf->mark != 0)
            continue;
        vrf->mark = 1;
        toclear[found++] = vrf_ref(vrf);
    }
    return found;
}

// Clears one batch; returns how many vrfs it held.
int sweep_batch()
{
    vrf_ref toclear[sweep_batch_size];
    const int found = collect_unmarked(toclear);
    for (int i = 0; i < found; ++i) {
        netlink_log(3, "Clearing unmarked vrf %p", static_cast<void *>(toclear[i].get()));
        kelm_rx_clear(toclear[i].get());
        kelm_tx_clear(toclear[i].get());
        toclear[i].reset();
    }
    return found;
}

void sweep()
{
    netlink_log(2, "handle_sync sweeping");
    vrf_mark = 0;
    while (sweep_batch() == sweep_batch_size) {
    }
    bh_guard lock(kelm_vrf_lock);
    kelm_vrf_list.for_each([](kelm_vrf &vrf) { vrf.mark = 0; });
}
} // namespace

void sync_init()
{
    vrf_mark = 0;
}

int handle_sync(kelm_vrf *vrf, sk_buff *skb, const nlmsghdr *hdr)
{
    const auto *msg = request_body<kelm_msg_sync>(hdr);
    if (msg == nullptr)
        return -EINVAL;
    if (msg->flags == 0) {
        netlink_log(2, "handle_sync without flags");
        return start_dump(vrf, skb, hdr, 0, 0, do_sync);
    }
    if (msg->flags & KELM_SYNC_MARK) {
        netlink_log(2, "handle_sync starting mark phase");
        vrf_mark = 1;
    }
    if (msg->flags & KELM_SYNC_SWEEP)
        sweep();
    return 0;
}
