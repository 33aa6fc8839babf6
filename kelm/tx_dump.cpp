// SPDX-License-Identifier: GPL-2.0
//
// Dumps of the packet table: statistics, and which packets exist.
#include "kelm/dump_walk.h"
#include "kelm/guard.h"
#include "kelm/message.h"
#include "kelm/tx_internal.h"

namespace
{
using txfillfn = int (*)(sk_buff *skb, tx_packet *packet, const dump_request &request);

int fill_tx_sync(sk_buff *skb, tx_packet *packet, const dump_request &request)
{
    if (!message_fits(skb, sizeof(kelm_msg_tx_sync)))
        return -1;
    kelm_msg_tx_sync msg = {};
    msg.header.discriminator = packet->discriminator;
    append_message(skb, request.portid, request.seq, KELM_MSG_TX_SYNC, msg);
    return 0;
}

// The packet table of a vrf as dump_table walks it: one message per packet.
struct packet_table {
    static constexpr const char *component = "Tx";
    static constexpr const char *table = "tx";
    static constexpr long steps = 1;

    kelm_vrf *vrf;
    txfillfn fillfunc;
    const char *dump_type;

    static spinlock_t &lock() { return tx_lock; }
    [[nodiscard]] long seq() const { return vrf->packets_seq; }
    [[nodiscard]] intrusive_list<tx_packet> &chain(long bucket) const
    {
        return vrf->packets[bucket];
    }
    int fill(sk_buff *skb, tx_packet *packet, long chain_depth, const dump_request &request) const
    {
        tx_log(request.discriminator, 2, "Filling packet %u (%ld)", packet->discriminator,
               chain_depth);
        return fillfunc(skb, packet, request);
    }
};
} // namespace

int kelm_tx_sync(kelm_vrf *vrf, sk_buff *skb, const dump_cursor &cursor,
                 const dump_request &request)
{
    return dump_table(packet_table{vrf, fill_tx_sync, "tx_sync"}, skb, cursor, request);
}

int kelm_tx_get_stats(kelm_vrf *vrf, sk_buff *skb, const dump_cursor &cursor,
                      const dump_request &request)
{
    return dump_table(packet_table{vrf, fill_tx_stats, "tx_get_stats"}, skb, cursor, request);
}

int kelm_tx_get_stats_single(kelm_vrf *vrf, sk_buff *skb, const dump_request &request)
{
    bh_guard table(tx_lock);
    tx_packet *packet = __get_packet(vrf, request.discriminator);
    if (packet != nullptr) {
        bh_guard lock(packet->lock);
        static_cast<void>(fill_tx_stats(skb, packet, request));
    }
    return 0;
}
