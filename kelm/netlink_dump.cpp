// SPDX-License-Identifier: GPL-2.0
//
// Statistics requests, and the driver of every dump. A dump fills one datagram at a time; between
// datagrams only its dump_data and its six slots remember where it stands. A vrf is dumped in
// three phases: sessions, packets, module counters. A walk over all vrfs goes from the newest to
// the oldest and holds a reference on the one that it is visiting.
#include "kelm/clocks.h"
#include "kelm/message.h"
#include "kelm/netlink_internal.h"
#include "kelm/record.h"
#include "kelm/rx.h"
#include "kelm/skb_ptr.h"
#include "kelm/tx.h"
#include "platform/err.h"

namespace
{
// The slots of netlink_callback::args.
enum dump_slot { PHASE, BUCKET, CHAIN_DEPTH, RX_SEQ, TX_SEQ, INPROGRESS };
enum dump_phase : long { PHASE_RX, PHASE_TX, PHASE_MODULE };

constinit atomic_counter module_stats_seq = 1;
constinit relaxed<bool> warned_no_vrfs(false);

void restart_phase(netlink_callback *dump, dump_phase phase)
{
    dump->args[PHASE] = phase;
    dump->args[BUCKET] = 0;
    dump->args[CHAIN_DEPTH] = 0;
}

std::uint64_t value_of(const atomic_counter &counter)
{
    return static_cast<std::uint64_t>(std::int64_t{counter.load(std::memory_order_relaxed)});
}

// Takes the next sequence number if it is unsolicited.
kelm_msg_module_stats module_stats_message(const kelm_module_stats &stats, bool unsolicited)
{
    kelm_msg_module_stats msg = {};
    msg.rfc_drops = value_of(stats.rfc_drops);
    msg.rx_packet_missing = value_of(stats.rx_packet_missing);
    msg.num_invalid_sessions = value_of(stats.num_invalid_sessions);
    msg.num_passup_disc_0 = value_of(stats.num_passup_disc_0);
    msg.netlink_packet_change_fail = value_of(stats.netlink_packet_change_fail);
    msg.netlink_failure_fail = value_of(stats.netlink_failure_fail);
    msg.pskb_expand_fail = value_of(stats.pskb_expand_fail);
    msg.session_stats_no_skb_fail = value_of(stats.session_stats_no_skb_fail);
    msg.session_stats_send_stats_fail = value_of(stats.session_stats_send_stats_fail);
    msg.session_stats_broadcast_fail = value_of(stats.session_stats_broadcast_fail);
    const timespec64 now = wall_clock();
    msg.timestamp_secs = static_cast<std::uint64_t>(now.tv_sec);
    msg.timestamp_nsecs = static_cast<std::uint64_t>(now.tv_nsec);
    const std::int64_t seq = unsolicited ? module_stats_seq++ : module_stats_seq.load();
    msg.seq_num = static_cast<std::uint64_t>(seq);
    msg.unsolicited = unsolicited;
    return msg;
}

void clear_module_stats(kelm_module_stats &stats)
{
    for (atomic_counter *counter :
         {&stats.rfc_drops, &stats.rx_packet_missing, &stats.num_invalid_sessions,
          &stats.num_passup_disc_0, &stats.netlink_packet_change_fail, &stats.netlink_failure_fail,
          &stats.netlink_stats_fail, &stats.pskb_expand_fail, &stats.session_stats_no_skb_fail,
          &stats.session_stats_send_stats_fail, &stats.session_stats_broadcast_fail})
        counter->store(0, std::memory_order_relaxed);
}

// The third phase: the counters of the vrf itself, if they were asked for.
int module_get_stats(kelm_vrf *vrf, sk_buff *skb, const dump_cursor &, const dump_request &request)
{
    if (!(request.flags & KELM_STATS_MODULE))
        return 0;
    if (!(request.flags & KELM_STATS_NO_REPORT)) {
        if (!message_fits(skb, sizeof(kelm_msg_module_stats)))
            return -1;
        append_message(skb, request.portid, request.seq, KELM_MSG_MODULE_STATS,
                       module_stats_message(vrf->stats, request.unsolicited));
    }
    if (request.flags & KELM_STATS_CLEAR)
        clear_module_stats(vrf->stats);
    return 0;
}

constexpr dump_phases getstats_phases = {kelm_rx_get_stats, kelm_tx_get_stats, module_get_stats,
                                         "getstats"};

int do_get_stats(sk_buff *skb, netlink_callback *dump)
{
    return send_stats(skb, dump, false);
}

void enter_first_vrf(dump_data *data, netlink_callback *dump)
{
    netlink_log_session(data->discriminator, 2, "Initializing first VRF");
    data->vrf = first_vrf();
    dump->args[INPROGRESS] = 1;
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
    restart_phase(dump, PHASE_RX);
    return true;
}

int send_all_vrfs_stats(sk_buff *skb, netlink_callback *dump, dump_data *data, bool unsolicited)
{
    const std::uint32_t disc = data->discriminator;
    netlink_log_session(disc, 2, "Dumping stats for all VRFs");
    if (dump->args[INPROGRESS] == 0) {
        enter_first_vrf(data, dump);
        if (!data->vrf)
            return 0;
    }
    do {
        const int result = dump_rxtx(skb, dump, getstats_phases, unsolicited);
        netlink_log_session(disc, 2, "dump_rxtx result %d", result);
        if (result != 0) {
            netlink_log_session(disc, 2, "skb full, returning from all-vrf getstats");
            return result;
        }
    } while (enter_next_vrf(data, dump));
    return 0;
}

// What start_dump hands to create_dump_data, which runs before start_dump returns.
struct dump_order {
    kelm_vrf *vrf;
    std::uint32_t discriminator;
    std::uint32_t flags;
};

int create_dump_data(netlink_callback *dump)
{
    const auto *order = static_cast<const dump_order *>(dump->data);
    auto *data = new_record<dump_data>(GFP_KERNEL);
    if (data == nullptr)
        return -ENOMEM;
    data->vrf = vrf_ref(order->vrf);
    data->discriminator = order->discriminator;
    data->flags = order->flags;
    dump->data = data;
    return 0;
}

int free_dump_data(netlink_callback *dump)
{
    delete_record(static_cast<dump_data *>(dump->data));
    return 0;
}

// The reply for one session: its packet's statistics and its own, in one datagram.
int reply_single(kelm_vrf *vrf, const dump_request &request)
{
    skb_ptr reply(
        alloc_skb(NLMSG_SPACE(sizeof(kelm_msg_tx_stats)) + NLMSG_SPACE(sizeof(kelm_msg_rx_stats)),
                  GFP_KERNEL));
    if (!reply)
        return -ENOMEM;
    int result = kelm_tx_get_stats_single(vrf, reply.get(), request);
    if (result == 0)
        result = kelm_rx_get_stats_single(vrf, reply.get(), request);
    if (result != 0)
        return result;
    if (skb_len(reply.get()) == 0)
        return -ENOENT;
    return kelm_netlink_send_stats(vrf, reply.release(), request.portid);
}

// A full buffer is returned as its length: a message that does not fit even into an empty one ends
// the dump, unless the host knows a larger one.
int datagram_full(const sk_buff *skb, netlink_callback *dump)
{
    dump->no_room = skb_len(skb) == 0;
    return static_cast<int>(skb_len(skb));
}
} // namespace

void dump_init()
{
    module_stats_seq = 1;
    warned_no_vrfs = false;
}

int dump_rxtx(sk_buff *skb, netlink_callback *dump, const dump_phases &phases, bool unsolicited)
{
    const auto *data = static_cast<const dump_data *>(dump->data);
    const dump_request request = {
        .portid = dump->skb != nullptr ? netlink_skb_portid(dump->skb) : 0,
        .seq = dump->nlh != nullptr ? dump->nlh->nlmsg_seq : 0,
        .discriminator = data->discriminator,
        .flags = data->flags,
        .unsolicited = unsolicited,
    };
    long *const slot = dump->args;
    kelm_vrf *vrf = data->vrf.get();
    netlink_log_session(request.discriminator, 2,
                        "Dumping kelm %s for vrf %p: %ld %ld %ld %u %x skb len %u", phases.type,
                        static_cast<void *>(vrf), slot[PHASE], slot[BUCKET], slot[CHAIN_DEPTH],
                        request.discriminator, request.flags, skb_tailroom(skb));

    if (slot[PHASE] == PHASE_RX) {
        const dump_cursor cursor = {slot[BUCKET], slot[CHAIN_DEPTH], &slot[RX_SEQ]};
        if (phases.rxdump(vrf, skb, cursor, request) != 0)
            return datagram_full(skb, dump);
        restart_phase(dump, PHASE_TX);
    }
    if (slot[PHASE] == PHASE_TX) {
        const dump_cursor cursor = {slot[BUCKET], slot[CHAIN_DEPTH], &slot[TX_SEQ]};
        if (phases.txdump(vrf, skb, cursor, request) != 0)
            return datagram_full(skb, dump);
        restart_phase(dump, PHASE_MODULE);
    }
    if (slot[PHASE] == PHASE_MODULE && phases.moduledump != nullptr) {
        const dump_cursor cursor = {slot[BUCKET], slot[CHAIN_DEPTH], nullptr};
        if (phases.moduledump(vrf, skb, cursor, request) != 0)
            return datagram_full(skb, dump);
    }
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
    return dump_rxtx(skb, dump, getstats_phases, unsolicited);
}

int start_dump(kelm_vrf *vrf, sk_buff *skb, const nlmsghdr *hdr, std::uint32_t discriminator,
               std::uint32_t flags, int (*fn)(sk_buff *skb, netlink_callback *dump))
{
    dump_order order = {vrf, discriminator, flags};
    const netlink_dump_control control = {
        .start = create_dump_data,
        .dump = fn,
        .done = free_dump_data,
        .data = &order,
        .min_dump_alloc = 2048,
    };
    return netlink_dump_start(vrf->netlink_sock, skb, hdr, &control);
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
