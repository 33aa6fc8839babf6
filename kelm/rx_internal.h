// SPDX-License-Identifier: GPL-2.0
//
// Receive sessions, and what the parts of the receive engine offer to each other.
//
// A session is found under rx_lock and used under its own lock, which nests inside. The receive
// path lets go of rx_lock once it holds the session's; the detection timeout takes the session's
// lock alone.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kelm/clocks.h"
#include "kelm/rx.h"
#include "platform/spinlock.h"
#include "platform/timer.h"

#define rx_log(discriminator, level, ...) KELM_LOG_SESSION("Rx", discriminator, level, __VA_ARGS__)

// Accepted packets, the intervals between them in microseconds, and round trips in 16 ns units.
struct rx_common_stats {
    std::uint64_t num_received;
    std::uint64_t total_period;
    kelm_microsecs min_period; // NO_MINIMUM for none yet
    kelm_microsecs max_period;
    std::uint64_t total_rtt;
    std::uint32_t last_rtt;
    std::uint32_t min_rtt; // NO_MINIMUM for none yet
    std::uint32_t max_rtt;
};

struct rx_session_stats {
    rx_common_stats lifetime_stats;
    rx_common_stats snapshot_stats; // since the last periodic broadcast
    std::uint64_t num_auth_fail;
    std::uint64_t num_passup;
    std::uint64_t num_auth_type_mismatch;
    std::uint64_t packet_alloc_fail;
    std::uint64_t pskb_expand_fail;
    std::uint64_t num_timeout;
    timespec64 last_rx_time;      // of the last accepted packet, wall clock; 0 for none
    timespec64 last_state_change; // of the last configuration or timeout, wall clock
};

// Where a frame came in, and where its headers lie, from the link-layer header on.
struct frame_info {
    int ifindex;
    int member_ifindex; // member link of a link aggregate; 0 where the host cannot tell
    std::uint32_t l3_offset;
    std::uint32_t bfd_offset;
};

// A copy of the last frame passed up, from its link-layer header to the end of the BFD packet.
struct stored_frame {
    std::size_t len; // 0 for none
    std::uint8_t *data;
};

// Owned by its chain, and freed only after it has left it.
struct rx_session {
    list_link list;              // in a chain of the vrf's sessions, guarded by rx_lock
    std::uint32_t discriminator; // the Your Discriminator of its packets
    spinlock_t lock;             // guards what follows
    timer_list timer;            // the detection timer
    rx_session_stats stats;
    // Whether accepted packets restart the timer, which says nothing of whether it runs: a refused
    // request may have changed it.
    bool timer_active;
    // Whether the timer's expiry is to be reported: true from the start of the timer until it
    // expires or a request stops it. Unlike timer_pending, it still holds while the callback of an
    // expired timer waits for the lock.
    bool timer_armed;
    bool mydisc_rtt; // My Discriminator of its packets is our own time stamp, returned
    std::uint8_t multiplier;
    kelm_microsecs period;
    kelm_auth_config auth;
    kelm_bfd_auth_key auth_key[KELM_NUM_AUTH_KEYS];
    kelm_vrf *vrf;                                          // counted
    std::uint32_t type;                                     // kelm_rx_session_types
    tx_packet *latch_tx_packets[KELM_NUM_LATCH_TX_PACKETS]; // counted; null ends the list
    std::uint8_t latch_diagnostic;
    sk_buff *fail_skb;     // the failure message
    frame_info info;       // of the last frame passed up
    std::uint32_t seq_num; // last accepted authentication sequence number; 0 for none
    stored_frame packet;
};

// Guards the session tables of all vrfs.
extern spinlock_t rx_lock;

// The session of a vrf. The caller holds rx_lock.
[[nodiscard]] rx_session *__get_session(kelm_vrf *vrf, std::uint32_t discriminator);

// Starts the detection timer, or starts it over, and returns the tick at which it expires. The
// caller holds the session's lock.
unsigned long start_timer(rx_session *session, unsigned long now);

// The detection timer's callback.
void rx_timeout(timer_list *timer);

// The vrf's receive socket of a type, or null.
[[nodiscard]] sock *rx_socket_get(const kelm_vrf *vrf, std::uint32_t type);
void rx_free_sockets(kelm_vrf *vrf);

// The data-ready callback of every receive socket: one datagram.
void rx_data_ready(sock *sk);
void rx_packet_init();

// Statistics. The caller holds the session's lock.
void clear_session_stats(rx_common_stats *stats);
// Records one accepted packet. pkt_tx_time is its My Discriminator, unconverted.
void record_stats(rx_session *session, std::uint32_t pkt_tx_time);
// Appends one KELM_MSG_RX_STATS and clears what the request says. 0, or -1 without room.
[[nodiscard]] int fill_rx_stats(sk_buff *skb, rx_session *session, const dump_request &request);

// The fixed part of a KELM_MSG_RX_PACKET_CHANGE for a frame of that length.
[[nodiscard]] kelm_msg_rx_packet_change
packet_change_message(std::uint32_t discriminator, const frame_info &info, std::size_t frame_len);
