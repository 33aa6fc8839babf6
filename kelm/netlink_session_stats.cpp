// SPDX-License-Identifier: GPL-2.0
//
// Periodic statistics: once per interval, everything that a statistics dump of all vrfs holds is
// multicast to the agents of the default vrf, the oldest, which is the initial namespace's. Runs
// come from the timer and from the request that sets the interval, and may overlap.
#include "kelm/message.h"
#include "kelm/netlink_internal.h"
#include "kelm/skb_ptr.h"
#include "platform/clock.h"
#include "platform/err.h"

namespace
{
constexpr unsigned BROADCAST_SIZE = 2048;

constinit relaxed<std::uint16_t> session_stats_timer_interval_seconds(0);
constinit timer_list session_stats_timer = {};

// Fills and multicasts one datagram. Whether there is more to send.
bool broadcast_next(kelm_vrf *vrf, netlink_callback *dump)
{
    skb_ptr skb(alloc_skb(BROADCAST_SIZE, GFP_ATOMIC));
    if (!skb) {
        netlink_log(2, "Error sending session statistics, no skb");
        count(vrf->stats.session_stats_no_skb_fail);
        return false;
    }
    const int result = send_stats(skb.get(), dump, true);
    if (result < 0) {
        netlink_log(2, "Error getting session statistics");
        count(vrf->stats.session_stats_send_stats_fail);
        return false;
    }
    const int err =
        netlink_broadcast(vrf->netlink_sock, skb.release(), 0, KELM_NLG_NUM_CONTROL, GFP_ATOMIC);
    if (err != 0) {
        netlink_log(2, "Error sending session stats netlink message, continuing err: %d", err);
        count(vrf->stats.session_stats_broadcast_fail);
    }
    if (result == 0)
        netlink_log(2, "Finished sending stats");
    return result > 0;
}

void handle_session_stats_timer()
{
    const std::uint16_t interval = session_stats_timer_interval_seconds;
    if (interval == 0)
        return;
    const vrf_ref vrf = last_vrf();
    if (!vrf) {
        netlink_log(2, "Error getting default vrf");
        return;
    }
    dump_data data = {vrf_ref(vrf.get()), 0, KELM_STATS_MODULE | KELM_STATS_ALL_VRFS};
    netlink_callback dump = {};
    dump.data = &data;

    // Armed before the work, so that runs start one interval apart whatever a run costs.
    mod_timer(&session_stats_timer, get_jiffies_64() + __msecs_to_jiffies(interval * 1000U));
    while (broadcast_next(vrf.get(), &dump)) {
    }
}

void session_stats_timer_timeout(timer_list *)
{
    handle_session_stats_timer();
}
} // namespace

void session_stats_init()
{
    session_stats_timer_interval_seconds = 0;
    timer_setup(&session_stats_timer, session_stats_timer_timeout);
}

void session_stats_stop()
{
    session_stats_timer_interval_seconds = 0;
    del_timer_sync(&session_stats_timer);
}

int set_session_stats_interval(kelm_vrf *, sk_buff *, const nlmsghdr *hdr)
{
    const auto *msg = request_body<kelm_msg_set_session_stats_interval>(hdr);
    if (msg == nullptr || msg->header.discriminator != 0)
        return -EINVAL;
    const std::uint16_t old_interval = session_stats_timer_interval_seconds.exchange(msg->interval);
    netlink_log(2, "Set session stats timer interval from %u to %u seconds", old_interval,
                msg->interval);
    if (msg->interval == 0)
        del_timer_sync(&session_stats_timer);
    else
        handle_session_stats_timer();
    return 0;
}
