// SPDX-License-Identifier: GPL-2.0
//
// Statistics of transmissions: the intervals between them (lateness), for the packet's lifetime
// and since the last periodic broadcast (snapshot), and their message.
#include <initializer_list>

#include "kelm/dump.h"
#include "kelm/message.h"
#include "kelm/tx_internal.h"

namespace
{
kelm_microsecs get_min_lateness(const tx_common_stats &stats)
{
    return stats.min_lateness != NO_MINIMUM ? stats.min_lateness : 0;
}

kelm_microsecs get_avg_lateness(const tx_common_stats &stats)
{
    const std::uint64_t intervals = stats.num_sent > 1 ? stats.num_sent - 1 : 1;
    return static_cast<kelm_microsecs>(stats.total_lateness / intervals);
}

// The multiples of the period are taken modulo 2^32, as the period itself is.
void count_by_periods(tx_common_stats *stats, std::int64_t lateness, kelm_microsecs period)
{
    if (lateness <= std::int64_t{period})
        ++stats->sent_within_1p;
    else if (lateness <= std::int64_t{period * 2})
        ++stats->sent_within_2p;
    else if (lateness <= std::int64_t{period * 3})
        ++stats->sent_within_3p;
    else
        ++stats->sent_after_3p;
}

// lateness: microseconds since the previous transmission, not negative; has_interval: there was
// one to measure from.
void record_interval_stats(tx_common_stats *stats, std::int64_t lateness, bool has_interval,
                           kelm_microsecs period, std::uint32_t disc)
{
    ++stats->num_sent;
    if (stats->num_sent == 1) {
        tx_log(disc, 3, "Skipping period tx stats for %u", disc);
        return;
    }
    if (!has_interval)
        return;
    stats->total_lateness += static_cast<std::uint64_t>(lateness);
    if (lateness < std::int64_t{stats->min_lateness})
        stats->min_lateness = static_cast<kelm_microsecs>(lateness);
    if (lateness > std::int64_t{stats->max_lateness})
        stats->max_lateness = static_cast<kelm_microsecs>(lateness);
    count_by_periods(stats, lateness, period);
}

kelm_msg_tx_stats stats_message(const tx_packet &packet, bool unsolicited)
{
    const tx_packet_stats &stats = packet.stats;
    const tx_common_stats &lifetime = stats.lifetime_stats;
    const tx_common_stats &snapshot = stats.snapshot_stats;
    kelm_msg_tx_stats msg = {};
    msg.header.discriminator = packet.discriminator;
    msg.min_lateness = get_min_lateness(lifetime);
    msg.avg_lateness = get_avg_lateness(lifetime);
    msg.max_lateness = lifetime.max_lateness;
    msg.last_tx_time = to_kelm_time(stats.last_tx_time);
    msg.num_sent = lifetime.num_sent;
    msg.num_tx_errors = stats.num_tx_errors;
    msg.num_empty_packets = stats.num_empty_packets;
    msg.num_short_packets = stats.num_short_packets;
    msg.num_latch_errors = stats.num_latch_errors;
    msg.num_latches = stats.num_latches;
    msg.sent_within_1p = lifetime.sent_within_1p;
    msg.sent_within_2p = lifetime.sent_within_2p;
    msg.sent_within_3p = lifetime.sent_within_3p;
    msg.sent_after_3p = lifetime.sent_after_3p;
    msg.snapshot_num_sent = snapshot.num_sent;
    msg.snapshot_min_lateness = get_min_lateness(snapshot);
    msg.snapshot_avg_lateness = get_avg_lateness(snapshot);
    msg.snapshot_max_lateness = snapshot.max_lateness;
    msg.snapshot_sent_within_1p = snapshot.sent_within_1p;
    msg.snapshot_sent_within_2p = snapshot.sent_within_2p;
    msg.snapshot_sent_within_3p = snapshot.sent_within_3p;
    msg.snapshot_sent_after_3p = snapshot.sent_after_3p;
    const timespec64 now = wall_clock();
    msg.timestamp_secs = static_cast<std::uint64_t>(now.tv_sec);
    msg.timestamp_nsecs = static_cast<std::uint64_t>(now.tv_nsec);
    msg.unsolicited = unsolicited;
    return msg;
}

// All but the snapshot, which only its report restarts.
void clear_on_request(tx_packet_stats *stats)
{
    const tx_common_stats snapshot = stats->snapshot_stats;
    *stats = {};
    stats->snapshot_stats = snapshot;
    clear_packet_stats(&stats->lifetime_stats);
}
} // namespace

void clear_packet_stats(tx_common_stats *stats)
{
    *stats = {};
    stats->min_lateness = NO_MINIMUM;
}

void tx_record_stats(tx_packet *packet)
{
    tx_packet_stats &stats = packet->stats;
    const timespec64 now = wall_clock();
    const timespec64 last = stats.last_tx_time;
    std::int64_t lateness = usecs_between(last, now);
    tx_log(packet->discriminator, 3, "Lateness is %lld, now is %lu.%09lu, last_tx %lu.%09lu",
           static_cast<long long>(lateness), static_cast<unsigned long>(now.tv_sec),
           static_cast<unsigned long>(now.tv_nsec), static_cast<unsigned long>(last.tv_sec),
           static_cast<unsigned long>(last.tv_nsec));
    if (lateness < 0)
        lateness = 0;
    // After a clear there is no transmission to measure from.
    const bool has_interval = !is_zero(last);
    for (tx_common_stats *block : {&stats.lifetime_stats, &stats.snapshot_stats})
        record_interval_stats(block, lateness, has_interval, packet->period, packet->discriminator);
    stats.last_tx_time = now;
    packet->last_tx_jiffies = get_jiffies_64();
}

int fill_tx_stats(sk_buff *skb, tx_packet *packet, const dump_request &request)
{
    if (!(request.flags & KELM_STATS_NO_REPORT)) {
        if (!message_fits(skb, sizeof(kelm_msg_tx_stats)))
            return -1;
        append_message(skb, request.portid, request.seq, KELM_MSG_TX_STATS,
                       stats_message(*packet, request.unsolicited));
    }
    if (request.flags & KELM_STATS_CLEAR)
        clear_on_request(&packet->stats);
    if (request.unsolicited)
        clear_packet_stats(&packet->stats.snapshot_stats);
    return 0;
}
