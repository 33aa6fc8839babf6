// SPDX-License-Identifier: GPL-2.0
//
// A request for one session is answered at once, all others by a dump, of one vrf or of all of them
// from the newest to the oldest. The periodic statistics are the dump of all vrfs, multicast to the
// agents of the default vrf, the oldest, which is the initial namespace's. Their runs come from the
// timer and from the request that sets the interval, and may overlap.
#include "kelm/netlink_stats.h"

#include "kelm/dump.h"
#include "kelm/log.h"
#include "kelm/message.h"
#include "kelm/netlink.h"
#include "kelm/netlink_module_stats.h"
#include "kelm/netlink_vrf.h"
#include "kelm/skb_ptr.h"
#include "platform/clock.h"
#include "platform/err.h"
#include "platform/timer.h"

namespace
{
constexpr unsigned broadcast_size = 2048;

constexpr dump_kind getstats_kind = {"getstats",
                                     {kelm_rx_get_stats, kelm_tx_get_stats, module_get_stats}};

constinit relaxed<bool> warned_no_vrfs(false);
constinit relaxed<std::uint16_t> session_stats_timer_interval_seconds(0);
constinit timer_list session_stats_timer = {};

void enter_first_vrf(dump_data *data, netlink_callback *dump)
{
    netlink_log_session(data->discriminator, 2, "Initializing first VRF");
    data->vrf = first_vrf();
    dump->args[slot_in_progress] = 1;
    if (!data->vrf && !warned_no_vrfs.exchange(true))
        WARN("No VRFs!");
}

// Goes on to the next vrf. False, with the vrf given back, when the walk is finished: at the end
// of the list, or because the vrf left the list while it was visited.
bool enter_next_vrf(dump_data *data, netlink_callback *dump)
{
    const std::uint32_t disc = data->discriminator;
    vrf_ref next = next_vrf(data->vrf.get());
    if (!next) {
        netlink_log_session(disc, 2, "Finished all VRFs, ending stats dump");
        data->vrf.reset();
        return false;
    }
    netlink_log_session(disc, 2, "Got next VRF, was %p now %p",
                        static_cast<void *>(data->vrf.get()), static_cast<void *>(next.get()));
    data->vrf = std::move(next);
    enter_phase(dump, 0);
    return true;
}

int send_all_vrfs_stats(sk_buff *skb, netlink_callback *dump, dump_data *data, bool unsolicited)
{
    const std::uint32_t disc = data->discriminator;
    netlink_log_session(disc, 2, "Dumping stats for all VRFs");
    if (dump->args[slot_in_progress] == 0) {
        enter_first_vrf(data, dump);
        if (!data->vrf)
            return 0;
    }
    do {
        const int result = dump_rxtx(skb, dump, getstats_kind, unsolicited);
        netlink_log_session(disc, 2, "dump_rxtx result %d", result);
        if (result != 0) {
            netlink_log_session(disc, 2, "skb full, returning from all-vrf getstats");
            return result;
        }
    } while (enter_next_vrf(data, dump));
    return 0;
}

int do_get_stats(sk_buff *skb, netlink_callback *dump)
{
    return send_stats(skb, dump, false);
}

// The reply for one session: its packet's statistics and its own, in one datagram.
int reply_single(kelm_vrf *vrf, const dump_request &request)
{
    skb_ptr reply(
        alloc_skb(NLMSG_SPACE(sizeof(kelm_msg_tx_stats)) + NLMSG_SPACE(sizeof(kelm_msg_rx_stats)),
                  GFP_KERNEL));
    if (!reply)
        return -ENOMEM;
    kelm_tx_get_stats_single(vrf, reply.get(), request);
    kelm_rx_get_stats_single(vrf, reply.get(), request);
    if (skb_len(reply.get()) == 0)
        return -ENOENT;
    return kelm_netlink_send_stats(vrf, reply.release(), request.portid);
}

// Fills and multicasts one datagram of a periodic run. Whether there is more to send.
bool broadcast_next(kelm_vrf *vrf, netlink_callback *dump)
{
    skb_ptr skb(alloc_skb(broadcast_size, GFP_ATOMIC));
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

// One run.
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

void stats_requests_init()
{
    warned_no_vrfs = false;
    session_stats_timer_interval_seconds = 0;
    timer_setup(&session_stats_timer, session_stats_timer_timeout);
}

void session_stats_stop()
{
    session_stats_timer_interval_seconds = 0;
    del_timer_sync(&session_stats_timer);
}

int handle_get_stats(kelm_vrf *vrf, sk_buff *skb, const nlmsghdr *hdr)
{
    const auto *msg = request_body<kelm_msg_get_stats>(hdr);
    if (msg == nullptr)
        return -EINVAL;
    const std::uint32_t discriminator = msg->header.discriminator;
    if (discriminator != 0 && msg->flags == 0)
        return reply_single(vrf,
                            {netlink_skb_portid(skb), hdr->nlmsg_seq, discriminator, 0, false});
    return start_dump(vrf, skb, hdr, discriminator, msg->flags, do_get_stats);
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

int send_stats(sk_buff *skb, netlink_callback *dump, bool unsolicited)
{
    auto *data = static_cast<dump_data *>(dump->data);
    if (!data->vrf) {
        netlink_log_session(data->discriminator, 2, "Called after releasing VRF, returning");
        return 0;
    }
    if (data->flags & KELM_STATS_ALL_VRFS)
        return send_all_vrfs_stats(skb, dump, data, unsolicited);
    return dump_rxtx(skb, dump, getstats_kind, unsolicited);
}
