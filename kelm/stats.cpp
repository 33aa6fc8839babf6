// SPDX-License-Identifier: GPL-2.0
#include "kelm/stats.h"

#include <initializer_list>

#include "kelm/clocks.h"
#include "kelm/dump.h"
#include "kelm/log.h"
#include "kelm/message.h"
#include "kelm/rx_table.h"
#include "kelm/tx_table.h"

namespace
{
// An interval that is not recorded: there is no event to measure it from.
constexpr std::int64_t unmeasured = -1;

// From the last event to now, microseconds; 0 if the wall clock was set back.
std::int64_t interval_since(const timespec64 &last, const timespec64 &now)
{
    if (is_zero(last))
        return unmeasured;
    const std::int64_t usecs = usecs_between(last, now);
    return usecs > 0 ? usecs : 0;
}

// A block's first event counts, and so does one that cannot be measured; neither has an interval
// in it. Whether this one has. What does not fit into 32 bits is cut.
bool add_event(interval_stats *stats, std::int64_t interval)
{
    ++stats->count;
    if (stats->count == 1 || interval == unmeasured)
        return false;
    stats->total += static_cast<std::uint64_t>(interval);
    if (interval < std::int64_t{stats->min})
        stats->min = static_cast<kelm_microsecs>(interval);
    if (interval > std::int64_t{stats->max})
        stats->max = static_cast<kelm_microsecs>(interval);
    return true;
}

kelm_microsecs average(const interval_stats &stats)
{
    const std::uint64_t intervals = stats.count > 1 ? stats.count - 1 : 1;
    return static_cast<kelm_microsecs>(stats.total / intervals);
}

std::uint32_t reported_minimum(std::uint32_t minimum)
{
    return minimum != no_minimum ? minimum : 0;
}

kelm_microsecs rtt_to_usecs(std::uint32_t rtt)
{
    return static_cast<kelm_microsecs>(std::uint64_t{rtt} * 16 / 1000);
}

// Over all packets.
kelm_microsecs average_rtt_usecs(const rx_block &block)
{
    const std::uint64_t packets = block.periods.count != 0 ? block.periods.count : 1;
    return rtt_to_usecs(static_cast<std::uint32_t>(block.total_rtt / packets));
}

void add_round_trip(rx_block *block, std::uint32_t rtt)
{
    if (rtt == 0)
        return;
    block->last_rtt = rtt;
    block->total_rtt += rtt;
    if (rtt > block->max_rtt)
        block->max_rtt = rtt;
    if (rtt < block->min_rtt)
        block->min_rtt = rtt;
}

// The multiples of the period are taken modulo 2^32, as the period itself is.
void count_by_periods(tx_block *block, std::int64_t lateness, kelm_microsecs period)
{
    if (lateness <= std::int64_t{period})
        ++block->sent_within_1p;
    else if (lateness <= std::int64_t{period * 2})
        ++block->sent_within_2p;
    else if (lateness <= std::int64_t{period * 3})
        ++block->sent_within_3p;
    else
        ++block->sent_after_3p;
}

void log_period(const rx_session *session, const timespec64 &now)
{
    const rx_stats &stats = session->stats;
    const std::int64_t period = usecs_between(stats.last_event, now);
    rx_log(session->discriminator, 3, "Period is %lld, now is %lu.%09lu, last_rx %lu.%09lu",
           static_cast<long long>(period), static_cast<unsigned long>(now.tv_sec),
           static_cast<unsigned long>(now.tv_nsec),
           static_cast<unsigned long>(stats.last_event.tv_sec),
           static_cast<unsigned long>(stats.last_event.tv_nsec));
    const interval_stats &periods = stats.lifetime.periods;
    if (periods.count >= 2 && period > std::int64_t{periods.max} &&
        session->auth.type == BFD_AUTH_DEBUG_SEQNUM)
        rx_log(session->discriminator, 2, "New max rx interval %lld",
               static_cast<long long>(period));
}

void log_lateness(const tx_packet *packet, const timespec64 &now)
{
    const timespec64 &last = packet->stats.last_event;
    tx_log(packet->discriminator, 3, "Lateness is %lld, now is %lu.%09lu, last_tx %lu.%09lu",
           static_cast<long long>(usecs_between(last, now)), static_cast<unsigned long>(now.tv_sec),
           static_cast<unsigned long>(now.tv_nsec), static_cast<unsigned long>(last.tv_sec),
           static_cast<unsigned long>(last.tv_nsec));
}

kelm_msg_rx_stats stats_message(const rx_session &session)
{
    const rx_stats &stats = session.stats;
    const rx_block &lifetime = stats.lifetime;
    const rx_block &snapshot = stats.snapshot;
    kelm_msg_rx_stats msg = {};
    msg.header.discriminator = session.discriminator;
    msg.min_period = reported_minimum(lifetime.periods.min);
    msg.avg_period = average(lifetime.periods);
    msg.max_period = lifetime.periods.max;
    msg.last_rx_time = to_kelm_time(stats.last_event);
    msg.last_state_change = to_kelm_time(stats.counters.last_state_change);
    msg.num_received = lifetime.periods.count;
    msg.num_auth_fail = stats.counters.num_auth_fail;
    msg.num_passup = stats.counters.num_passup;
    msg.num_auth_type_mismatch = stats.counters.num_auth_type_mismatch;
    msg.packet_alloc_fail = stats.counters.packet_alloc_fail;
    msg.pskb_expand_fail = stats.counters.pskb_expand_fail;
    msg.num_timeout = stats.counters.num_timeout;
    msg.snapshot_num_received = snapshot.periods.count;
    msg.snapshot_min_period = reported_minimum(snapshot.periods.min);
    msg.snapshot_avg_period = average(snapshot.periods);
    msg.snapshot_max_period = snapshot.periods.max;
    msg.min_rtt = rtt_to_usecs(reported_minimum(lifetime.min_rtt));
    msg.avg_rtt = average_rtt_usecs(lifetime);
    msg.max_rtt = rtt_to_usecs(lifetime.max_rtt);
    msg.last_rtt = rtt_to_usecs(lifetime.last_rtt);
    msg.snapshot_min_rtt = rtt_to_usecs(reported_minimum(snapshot.min_rtt));
    msg.snapshot_avg_rtt = average_rtt_usecs(snapshot);
    msg.snapshot_max_rtt = rtt_to_usecs(snapshot.max_rtt);
    return msg;
}

kelm_msg_tx_stats stats_message(const tx_packet &packet)
{
    const tx_stats &stats = packet.stats;
    const tx_block &lifetime = stats.lifetime;
    const tx_block &snapshot = stats.snapshot;
    kelm_msg_tx_stats msg = {};
    msg.header.discriminator = packet.discriminator;
    msg.min_lateness = reported_minimum(lifetime.latenesses.min);
    msg.avg_lateness = average(lifetime.latenesses);
    msg.max_lateness = lifetime.latenesses.max;
    msg.last_tx_time = to_kelm_time(stats.last_event);
    msg.num_sent = lifetime.latenesses.count;
    msg.num_tx_errors = stats.counters.num_tx_errors;
    msg.num_empty_packets = stats.counters.num_empty_packets;
    msg.num_short_packets = stats.counters.num_short_packets;
    msg.num_latch_errors = stats.counters.num_latch_errors;
    msg.num_latches = stats.counters.num_latches;
    msg.sent_within_1p = lifetime.sent_within_1p;
    msg.sent_within_2p = lifetime.sent_within_2p;
    msg.sent_within_3p = lifetime.sent_within_3p;
    msg.sent_after_3p = lifetime.sent_after_3p;
    msg.snapshot_num_sent = snapshot.latenesses.count;
    msg.snapshot_min_lateness = reported_minimum(snapshot.latenesses.min);
    msg.snapshot_avg_lateness = average(snapshot.latenesses);
    msg.snapshot_max_lateness = snapshot.latenesses.max;
    msg.snapshot_sent_within_1p = snapshot.sent_within_1p;
    msg.snapshot_sent_within_2p = snapshot.sent_within_2p;
    msg.snapshot_sent_within_3p = snapshot.sent_within_3p;
    msg.snapshot_sent_after_3p = snapshot.sent_after_3p;
    return msg;
}

// Reports the statistics of a record as a message of this type, and clears what the request says.
template<typename Record>
int fill_stats(sk_buff *skb, Record *record, int type, const dump_request &request)
{
    if (!(request.flags & KELM_STATS_NO_REPORT)) {
        if (!message_fits(skb, sizeof(stats_message(*record))))
            return -1;
        auto msg = stats_message(*record);
        set_timestamp(msg);
        msg.unsolicited = request.unsolicited;
        append_message(skb, request.portid, request.seq, type, msg);
    }
    if (request.flags & KELM_STATS_CLEAR)
        record->stats.clear();
    if (request.unsolicited)
        record->stats.restart_snapshot();
    return 0;
}
} // namespace

void record_reception(rx_session *session, std::uint32_t pkt_tx_time)
{
    rx_stats &stats = session->stats;
    const timespec64 now = wall_clock();
    log_period(session, now);
    const std::int64_t period = interval_since(stats.last_event, now);
    const std::uint32_t rtt = session->mydisc_rtt ? rtt_clock() - pkt_tx_time : 0;
    for (rx_block *block : {&stats.lifetime, &stats.snapshot}) {
        add_event(&block->periods, period);
        add_round_trip(block, rtt);
    }
    stats.last_event = now;
}

void record_transmission(tx_packet *packet)
{
    tx_stats &stats = packet->stats;
    const timespec64 now = wall_clock();
    log_lateness(packet, now);
    const std::int64_t lateness = interval_since(stats.last_event, now);
    for (tx_block *block : {&stats.lifetime, &stats.snapshot}) {
        if (add_event(&block->latenesses, lateness))
            count_by_periods(block, lateness, packet->period);
        else if (block->latenesses.count == 1)
            tx_log(packet->discriminator, 3, "Skipping period tx stats for %u",
                   packet->discriminator);
    }
    stats.last_event = now;
    packet->last_tx_jiffies = get_jiffies_64();
}

int fill_rx_stats(sk_buff *skb, rx_session *session, const dump_request &request)
{
    return fill_stats(skb, session, KELM_MSG_RX_STATS, request);
}

int fill_tx_stats(sk_buff *skb, tx_packet *packet, const dump_request &request)
{
    return fill_stats(skb, packet, KELM_MSG_TX_STATS, request);
}
