// SPDX-License-Identifier: GPL-2.0
//
// Whether transmission may start, module-wide: not before the agent says so or the first datagram
// arrives. Until then packets are only stored.
#include "kelm/guard.h"
#include "kelm/netlink.h"
#include "kelm/tx_internal.h"

constinit relaxed<bool> kelm_tx_path_ready(false);
constinit relaxed<bool> kelm_randomize_delay(false);

namespace
{
// Marks every vrf as still to be started.
void mark_vrfs_pending()
{
    bh_guard lock(kelm_vrf_lock);
    kelm_vrf_list.for_each([](kelm_vrf &vrf) { vrf.path_ready_pending = true; });
}

// The first vrf in the list that is still to be started, no longer marked.
vrf_ref next_pending_vrf()
{
    bh_guard lock(kelm_vrf_lock);
    for (kelm_vrf *vrf = kelm_vrf_list.front(); vrf != nullptr; vrf = kelm_vrf_list.next(*vrf)) {
        if (vrf->path_ready_pending) {
            vrf->path_ready_pending = false;
            return vrf_ref(vrf);
        }
    }
    return {};
}

void trigger_all_packets(kelm_vrf *vrf)
{
    bh_guard table(tx_lock);
    for (auto &chain : vrf->packets)
        chain.for_each([](tx_packet &packet) { tx_trigger(&packet, false); });
}
} // namespace

void tx_path_init()
{
    kelm_tx_path_ready = false;
    kelm_randomize_delay = false;
}

// Packets that are set from now on are scheduled at once; those stored so far are started here,
// vrf by vrf. A vrf that goes meanwhile takes its packets with it, one that comes has none yet.
void kelm_set_tx_path_ready()
{
    KELM_LOG("Tx", 2, "Setting kelm_tx_path_ready");
    if (kelm_tx_path_ready.exchange(true))
        return;
    kelm_randomize_delay = true;
    mark_vrfs_pending();
    while (const vrf_ref vrf = next_pending_vrf())
        trigger_all_packets(vrf.get());
    kelm_randomize_delay = false;
}
