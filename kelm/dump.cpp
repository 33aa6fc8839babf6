// SPDX-License-Identifier: GPL-2.0
#include "kelm/dump.h"

#include "kelm/dump_walk.h"
#include "kelm/message.h"
#include "kelm/record.h"
#include "kelm/rx_packet.h"
#include "kelm/rx_table.h"
#include "kelm/stats.h"
#include "kelm/tx_table.h"
#include "platform/err.h"

namespace
{
template<typename Record>
using fill_fn = int (*)(sk_buff *skb, Record *record, const dump_request &request);

// The frame that was passed up last, if any.
int fill_packet_change(sk_buff *skb, rx_session *session, const dump_request &request)
{
    const stored_bytes &frame = session->packet;
    if (frame.len == 0)
        return 0;
    const std::size_t body_len = sizeof(kelm_msg_rx_packet_change) + frame.len;
    if (!message_fits(skb, body_len))
        return -1;
    const kelm_msg_rx_packet_change msg =
        packet_change_message(session->discriminator, session->info, frame.len);
    nlmsghdr *hdr = __nlmsg_put(skb, request.portid, request.seq, KELM_MSG_RX_PACKET_CHANGE,
                                static_cast<int>(body_len), 0);
    auto *body = reinterpret_cast<std::uint8_t *>(hdr) + NLMSG_HDRLEN;
    std::memcpy(body, &msg, sizeof(msg));
    std::memcpy(body + sizeof(msg), frame.data, frame.len);
    return 0;
}

// The timer state. A session in the table has a failure message.
int fill_rx_sync(sk_buff *skb, rx_session *session, const dump_request &request)
{
    if (session->fail_skb == nullptr) {
        KELM_LOG("Rx", 1, "No fail_skb for %u in fill_rx_sync", session->discriminator);
        return 0;
    }
    if (!message_fits(skb, sizeof(kelm_msg_rx_sync)))
        return -1;
    kelm_msg_rx_sync msg = {};
    msg.header.discriminator = session->discriminator;
    msg.timer_active = session->timer_active;
    append_message(skb, request.portid, request.seq, KELM_MSG_RX_SYNC, msg);
    return 0;
}

int fill_tx_sync(sk_buff *skb, tx_packet *packet, const dump_request &request)
{
    if (!message_fits(skb, sizeof(kelm_msg_tx_sync)))
        return -1;
    kelm_msg_tx_sync msg = {};
    msg.header.discriminator = packet->discriminator;
    append_message(skb, request.portid, request.seq, KELM_MSG_TX_SYNC, msg);
    return 0;
}

// The sessions of a vrf: up to two messages of each.
struct session_table {
    using record = rx_session;
    static constexpr const char *component = "Rx";
    static constexpr const char *name = "rx";
    static constexpr long steps = 2;

    kelm_vrf *vrf;
    fill_fn<rx_session> fillfunc1;
    fill_fn<rx_session> fillfunc2; // may be null
    const char *dump_type;

    static spinlock_t &lock() { return rx_lock; }
    [[nodiscard]] record_table<rx_session> &records() const { return vrf->sessions; }
    int fill(sk_buff *skb, rx_session *session, long chain_depth, const dump_request &request) const
    {
        int result = 0;
        if (chain_depth % steps == 0) {
            rx_log(request.discriminator, 2, "Filling fillfunc1 %u (%ld)", session->discriminator,
                   chain_depth);
            result = fillfunc1(skb, session, request);
        } else if (fillfunc2 != nullptr) {
            rx_log(request.discriminator, 2, "Filling fillfunc2 %u (%ld)", session->discriminator,
                   chain_depth);
            result = fillfunc2(skb, session, request);
        }
        if (result != 0)
            rx_log(request.discriminator, 2, "skb full");
        return result;
    }
};

// The packets of a vrf: one message of each.
struct packet_table {
    using record = tx_packet;
    static constexpr const char *component = "Tx";
    static constexpr const char *name = "tx";
    static constexpr long steps = 1;

    kelm_vrf *vrf;
    fill_fn<tx_packet> fillfunc;
    const char *dump_type;

    static spinlock_t &lock() { return tx_lock; }
    [[nodiscard]] record_table<tx_packet> &records() const { return vrf->packets; }
    int fill(sk_buff *skb, tx_packet *packet, long chain_depth, const dump_request &request) const
    {
        tx_log(request.discriminator, 2, "Filling packet %u (%ld)", packet->discriminator,
               chain_depth);
        return fillfunc(skb, packet, request);
    }
};

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

// A full buffer is returned as its length: a message that does not fit even into an empty one ends
// the dump, unless the host knows a larger one.
int datagram_full(const sk_buff *skb, netlink_callback *dump)
{
    dump->no_room = skb_len(skb) == 0;
    return static_cast<int>(skb_len(skb));
}
} // namespace

int kelm_rx_sync(kelm_vrf *vrf, sk_buff *skb, const dump_cursor &cursor,
                 const dump_request &request)
{
    return walk_table(session_table{vrf, fill_packet_change, fill_rx_sync, "rx_sync"}, skb, cursor,
                      request);
}

int kelm_rx_get_stats(kelm_vrf *vrf, sk_buff *skb, const dump_cursor &cursor,
                      const dump_request &request)
{
    return walk_table(session_table{vrf, fill_rx_stats, nullptr, "rx_getstats"}, skb, cursor,
                      request);
}

int kelm_tx_sync(kelm_vrf *vrf, sk_buff *skb, const dump_cursor &cursor,
                 const dump_request &request)
{
    return walk_table(packet_table{vrf, fill_tx_sync, "tx_sync"}, skb, cursor, request);
}

int kelm_tx_get_stats(kelm_vrf *vrf, sk_buff *skb, const dump_cursor &cursor,
                      const dump_request &request)
{
    return walk_table(packet_table{vrf, fill_tx_stats, "tx_get_stats"}, skb, cursor, request);
}

void kelm_rx_get_stats_single(kelm_vrf *vrf, sk_buff *skb, const dump_request &request)
{
    bh_guard table(rx_lock);
    if (rx_session *session = vrf->sessions.find(request.discriminator)) {
        bh_guard lock(session->lock);
        static_cast<void>(fill_rx_stats(skb, session, request));
    }
}

void kelm_tx_get_stats_single(kelm_vrf *vrf, sk_buff *skb, const dump_request &request)
{
    bh_guard table(tx_lock);
    if (tx_packet *packet = vrf->packets.find(request.discriminator)) {
        bh_guard lock(packet->lock);
        static_cast<void>(fill_tx_stats(skb, packet, request));
    }
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

int dump_rxtx(sk_buff *skb, netlink_callback *dump, const dump_kind &kind, bool unsolicited)
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
    netlink_log_session(
        request.discriminator, 2, "Dumping kelm %s for vrf %p: %ld %ld %ld %u %x skb len %u",
        kind.type, static_cast<void *>(vrf), slot[slot_phase], slot[slot_bucket],
        slot[slot_chain_depth], request.discriminator, request.flags, skb_tailroom(skb));

    long *const table_seqs[] = {&slot[slot_rx_seq], &slot[slot_tx_seq], nullptr};
    constexpr long last_phase = 2;
    for (;; enter_phase(dump, slot[slot_phase] + 1)) {
        const long phase = slot[slot_phase];
        const dump_cursor cursor = {slot[slot_bucket], slot[slot_chain_depth], table_seqs[phase]};
        if (kind.phases[phase] != nullptr && kind.phases[phase](vrf, skb, cursor, request) != 0)
            return datagram_full(skb, dump);
        if (phase == last_phase)
            return 0;
    }
}

void enter_phase(netlink_callback *dump, long phase)
{
    dump->args[slot_phase] = phase;
    dump->args[slot_bucket] = 0;
    dump->args[slot_chain_depth] = 0;
}
