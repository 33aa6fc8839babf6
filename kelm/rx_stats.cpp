// SPDX-License-Identifier: GPL-2.0
//
// Statistics of reception: intervals between accepted packets and round trips, for the session's
// lifetime and since the last periodic broadcast (snapshot), and their message.
#include <initializer_list>

#include "kelm/dump.h"
#include "kelm/message.h"
#include "kelm/rx_internal.h"

namespace
{
kelm_microsecs get_min_period(const rx_common_stats &stats)
{
    return stats.min_period != NO_MINIMUM ? stats.min_period : 0;
}

kelm_microsecs get_avg_period(const rx_common_stats &stats)
{
    const std::uint64_t intervals = stats.num_received > 1 ? stats.num_received - 1 : 1;
    return static_cast<kelm_microsecs>(stats.total_period / intervals);
}

// In 16 ns units, over all packets.
std::uint32_t get_avg_rtt(const rx_common_stats &stats)
{
    const std::uint64_t packets = stats.num_received != 0 ? stats.num_received : 1;
    return static_cast<std::uint32_t>(stats.total_rtt / packets);
}

kelm_microsecs rtt_to_usecs(std::uint32_t rtt)
{
    return static_cast<kelm_microsecs>(std::uint64_t{rtt} * 16 / 1000);
}

kelm_microsecs min_rtt_usecs(const rx_common_stats &stats)
{
    return stats.min_rtt != NO_MINIMUM ? rtt_to_usecs(stats.min_rtt) : 0;
}

// period: microseconds since the previous packet, not negative; has_interval: there was one to
// measure from. A block's first packet counts, but has no interval in it.
void record_period_stats(rx_common_stats *stats, std::int64_t period, bool has_interval)
{
    ++stats->num_received;
    if (stats->num_received == 1 || !has_interval)
        return;
    stats->total_period += static_cast<std::uint64_t>(period);
    if (period < std::int64_t{stats->min_period})
        stats->min_period = static_cast<kelm_microsecs>(period);
    if (period > std::int64_t{stats->max_period})
        stats->max_period = static_cast<kelm_microsecs>(period);
}

void record_rtt_stats(rx_common_stats *stats, std::uint32_t rtt)
{
    if (rtt == 0)
        return;
    stats->last_rtt = rtt;
    stats->total_rtt += rtt;
    if (rtt > stats->max_rtt)
        stats->max_rtt = rtt;
    if (rtt < stats->min_rtt)
        stats->min_rtt = rtt;
}

void log_period(const rx_session *session, std::int64_t period, const timespec64 &now,
                const timespec64 &last)
{
    rx_log(session->discriminator, 3, "Period is %lld, now is %lu.%09lu, last_rx %lu.%09lu",
           static_cast<long long>(period), static_cast<unsigned long>(now.tv_sec),
           static_cast<unsigned long>(now.tv_nsec), static_cast<unsigned long>(last.tv_sec),
           static_cast<unsigned long>(last.tv_nsec));
    const rx_common_stats &lifetime = session->stats.lifetime_stats;
    if (lifetime.num_received >= 2 && period > std::int64_t{lifetime.max_period} &&
        session->auth.type == BFD_AUTH_DEBUG_SEQNUM)
        rx_log(session->discriminator, 2, "New max rx interval %lld",
               static_cast<long long>(period));
}

kelm_msg_rx_stats stats_message(const rx_session &session, bool unsolicited)
{
    const rx_session_stats &stats = session.stats;
    const rx_common_stats &lifetime = stats.lifetime_stats;
    const rx_common_stats &snapshot = stats.snapshot_stats;
    kelm_msg_rx_stats msg = {};
    msg.header.discriminator = session.discriminator;
    msg.min_period = get_min_period(lifetime);
    msg.avg_period = get_avg_period(lifetime);
    msg.max_period = lifetime.max_period;
    msg.last_rx_time = to_kelm_time(stats.last_rx_time);
    msg.last_state_change = to_kelm_time(stats.last_state_change);
    msg.num_received = lifetime.num_received;
    msg.num_auth_fail = stats.num_auth_fail;
    msg.num_passup = stats.num_passup;
    msg.num_auth_type_mismatch = stats.num_auth_type_mismatch;
    msg.packet_alloc_fail = stats.packet_alloc_fail;
    msg.pskb_expand_fail = stats.pskb_expand_fail;
    msg.num_timeout = stats.num_timeout;
    msg.snapshot_num_received = snapshot.num_received;
    msg.snapshot_min_period = get_min_period(snapshot);
    msg.snapshot_avg_period = get_avg_period(snapshot);
    msg.snapshot_max_period = snapshot.max_period;
    msg.min_rtt = min_rtt_usecs(lifetime);
    msg.avg_rtt = rtt_to_usecs(get_avg_rtt(lifetime));
    msg.max_rtt = rtt_to_usecs(lifetime.max_rtt);
    msg.last_rtt = rtt_to_usecs(lifetime.last_rtt);
    msg.snapshot_min_rtt = min_rtt_usecs(snapshot);
    msg.snapshot_avg_rtt = rtt_to_usecs(get_avg_rtt(snapshot));
    msg.snapshot_max_rtt = rtt_to_usecs(snapshot.max_rtt);
    const timespec64 now = wall_clock();
    msg.timestamp_secs = static_cast<std::uint64_t>(now.tv_sec);
    msg.timestamp_nsecs = static_cast<std::uint64_t>(now.tv_nsec);
    msg.unsolicited = unsolicited;
    return msg;
}

// All but the snapshot, which only its report restarts.
void clear_on_request(rx_session_stats *stats)
{
    const rx_common_stats snapshot = stats->snapshot_stats;
    *stats = {};
    stats->snapshot_stats = snapshot;
    clear_session_stats(&stats->lifetime_stats);
}
} // namespace

void clear_session_stats(rx_common_stats *stats)
{
    *stats = {};
    stats->min_period = NO_MINIMUM;
    stats->min_rtt = NO_MINIMUM;
}

void record_stats(rx_session *session, std::uint32_t pkt_tx_time)
{
    rx_session_stats &stats = session->stats;
    const timespec64 now = wall_clock();
    std::int64_t period = usecs_between(stats.last_rx_time, now);
    log_period(session, period, now, stats.last_rx_time);
    const std::uint32_t rtt = session->mydisc_rtt ? rtt_clock() - pkt_tx_time : 0;
    if (period < 0) // the wall clock was set back
        period = 0;
    // Before the first packet and after a clear there is nothing to measure from.
    const bool has_interval = !is_zero(stats.last_rx_time);
    for (rx_common_stats *block : {&stats.lifetime_stats, &stats.snapshot_stats}) {
        record_period_stats(block, period, has_interval);
        record_rtt_stats(block, rtt);
    }
    stats.last_rx_time = now;
}

int fill_rx_stats(sk_buff *skb, rx_session *session, const dump_request &request)
{
    if (!(request.flags & KELM_STATS_NO_REPORT)) {
        if (!message_fits(skb, sizeof(kelm_msg_rx_stats)))
            return -1;
        append_message(skb, request.portid, request.seq, KELM_MSG_RX_STATS,
                       stats_message(*session, request.unsolicited));
    }
    if (request.flags & KELM_STATS_CLEAR)
        clear_on_request(&session->stats);
    if (request.unsolicited)
        clear_session_stats(&session->stats.snapshot_stats);
    return 0;
}
