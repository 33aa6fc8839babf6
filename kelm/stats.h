// SPDX-License-Identifier: GPL-2.0
//
// Statistics of sessions and packets: what is recorded, their reports, and what clears them.
#pragma once

#include <cstdint>

#include "kelm/kelm.h"
#include "platform/clock.h"

struct dump_request;
struct rx_session;
struct sk_buff;
struct tx_packet;

// The minimum without a sample.
inline constexpr std::uint32_t no_minimum = 0xFFFFFFFF;

// The intervals between events, microseconds.
struct interval_stats {
    std::uint64_t count = 0; // of events, one more than there are intervals
    std::uint64_t total = 0;
    kelm_microsecs min = no_minimum;
    kelm_microsecs max = 0;
};

// Accepted packets, and their round trips in units of 16 ns.
struct rx_block {
    interval_stats periods;
    std::uint64_t total_rtt = 0;
    std::uint32_t last_rtt = 0;
    std::uint32_t min_rtt = no_minimum;
    std::uint32_t max_rtt = 0;
};

// In-band transmissions, and by how many periods the one before them lay back.
struct tx_block {
    interval_stats latenesses;
    std::uint64_t sent_within_1p = 0;
    std::uint64_t sent_within_2p = 0;
    std::uint64_t sent_within_3p = 0;
    std::uint64_t sent_after_3p = 0;
};

struct rx_counters {
    std::uint64_t num_auth_fail = 0;
    std::uint64_t num_passup = 0;
    std::uint64_t num_auth_type_mismatch = 0;
    std::uint64_t packet_alloc_fail = 0;
    std::uint64_t pskb_expand_fail = 0;
    std::uint64_t num_timeout = 0;
    timespec64 last_state_change = {}; // the last configuration or timeout, wall clock
};

struct tx_counters {
    std::uint64_t num_tx_errors = 0;
    std::uint64_t num_empty_packets = 0;
    std::uint64_t num_short_packets = 0;
    std::uint64_t num_latch_errors = 0;
    std::uint64_t num_latches = 0;
};

// A record's statistics. What happens regularly is recorded twice: for its lifetime, and since the
// last periodic report (snapshot).
template<typename Block, typename Counters>
struct record_stats {
    timespec64 last_event = {}; // wall clock; 0 for none to measure an interval from
    Block lifetime;
    Block snapshot;
    Counters counters;

    // A new period makes the intervals so far meaningless.
    void restart() { lifetime = snapshot = {}; }

    // KELM_STATS_CLEAR spares the snapshot, a periodic report restarts nothing else.
    void clear()
    {
        const Block kept = snapshot;
        *this = {};
        snapshot = kept;
    }
    void restart_snapshot() { snapshot = {}; }
};

using rx_stats = record_stats<rx_block, rx_counters>;
using tx_stats = record_stats<tx_block, tx_counters>;

// The caller of these holds the record's lock.

// A packet has been accepted. pkt_tx_time is its My Discriminator, unconverted.
void record_reception(rx_session *session, std::uint32_t pkt_tx_time);

// An in-band transmission has been tried.
void record_transmission(tx_packet *packet);

// Append one KELM_MSG_RX_STATS or KELM_MSG_TX_STATS and clear what the request says. 0, or -1
// without room.
[[nodiscard]] int fill_rx_stats(sk_buff *skb, rx_session *session, const dump_request &request);
[[nodiscard]] int fill_tx_stats(sk_buff *skb, tx_packet *packet, const dump_request &request);
