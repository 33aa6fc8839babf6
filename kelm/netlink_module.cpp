// SPDX-License-Identifier: GPL-2.0
//
// The module's start and stop, in order and in reverse.
#include "kelm/log.h"
#include "kelm/netlink_module_stats.h"
#include "kelm/netlink_stats.h"
#include "kelm/netlink_sync.h"
#include "kelm/netlink_vrf.h"
#include "kelm/rx_packet.h"
#include "kelm/rx_table.h"
#include "kelm/tx_schedule.h"
#include "kelm/tx_table.h"
#include "kelm/tx_transmit.h"
#include "platform/kthread.h"
#include "platform/module.h"

constinit bool kelm_strict = false;

namespace
{
constinit task_struct *kelm_vrf_cleanup_task = nullptr;
constinit notifier_block netdev_notifier = {netdev_callback};

// Module-wide state as it is at load: a host may start the engine again after kelm_release.
void init_components()
{
    debug_init();
    vrf_list_init();
    rx_table_init();
    rx_packet_init();
    tx_table_init();
    tx_path_init();
    tx_trigger_init();
    module_stats_init();
    sync_init();
    // The notifier brings the first vrfs, and with them requests that may arm the timer.
    stats_requests_init();
}

int start_cleanup_thread()
{
    task_struct *task =
        kthread_create_on_node(kelm_vrf_cleanup, nullptr, NUMA_NO_NODE, "kelm_vrf_cleanup");
    if (IS_ERR(task)) {
        netlink_log(1, "Error starting kelm_vrf_cleanup task");
        return PTR_ERR(task);
    }
    kelm_vrf_cleanup_task = task;
    wake_up_process(task);
    return 0;
}
} // namespace

int kelm_init()
{
    module_get_self();
    init_components();
    if (kelm_strict)
        netlink_log(1, "Strict mode");

    // Replays the devices that exist, and so creates the vrfs of all namespaces.
    int err = register_netdevice_notifier(&netdev_notifier);
    if (err != 0) {
        netlink_log(1, "Error registering netdev notifier");
        return err;
    }
    err = start_cleanup_thread();
    if (err != 0)
        unregister_netdevice_notifier(&netdev_notifier);
    return err;
}

void kelm_exit()
{
    if (kelm_vrf_cleanup_task != nullptr) {
        kthread_stop(kelm_vrf_cleanup_task);
        kelm_vrf_cleanup_task = nullptr;
    }
    unregister_netdevice_notifier(&netdev_notifier);
}

void kelm_release()
{
    session_stats_stop();
    release_all_vrfs();
    kelm_tx_release();
}
