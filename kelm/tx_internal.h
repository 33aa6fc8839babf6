// SPDX-License-Identifier: GPL-2.0
//
// Transmit packets, and what the parts of the transmit engine offer to each other.
//
// References on a packet: one for membership in a table, one for a pending timer, one per
// receive session that links it. So a packet in a table never reaches zero, and neither does one
// with a pending timer.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "kelm/clocks.h"
#include "kelm/tx.h"
#include "kelm/tx_layout.h"
#include "platform/spinlock.h"
#include "platform/timer.h"

#define tx_log(discriminator, level, ...) KELM_LOG_SESSION("Tx", discriminator, level, __VA_ARGS__)

// Intervals between in-band transmissions, microseconds.
struct tx_common_stats {
    std::uint64_t num_sent;
    std::uint64_t total_lateness;
    kelm_microsecs min_lateness; // NO_MINIMUM for none yet
    kelm_microsecs max_lateness;
    std::uint64_t sent_within_1p; // intervals of at most one period
    std::uint64_t sent_within_2p;
    std::uint64_t sent_within_3p;
    std::uint64_t sent_after_3p;
};

struct tx_packet_stats {
    tx_common_stats lifetime_stats;
    tx_common_stats snapshot_stats; // since the last periodic broadcast
    std::uint64_t num_tx_errors;
    std::uint64_t num_empty_packets;
    std::uint64_t num_short_packets;
    std::uint64_t num_latch_errors;
    std::uint64_t num_latches;
    timespec64 last_tx_time; // of the last in-band transmission, wall clock; 0 for none
};

struct tx_packet {
    list_link list; // in a chain of the vrf's packets, guarded by tx_lock
    std::uint32_t discriminator;
    spinlock_t lock; // guards what follows, but for the two atomics
    std::atomic<std::int32_t> refcount;
    std::atomic<std::int32_t> latch_diag; // to be latched at the next transmission; 0 for none
    timer_list timer;
    bool send_oob_packet; // the contents go out once at once, outside the rhythm
    bool mydisc_rtt;
    unsigned long inband_expires; // due tick of the rhythm, saved while send_oob_packet is set
    sock *sk;                     // the vrf's socket for type; null if it had none
    bool dead;                    // deleted: never sent or scheduled again
    tx_packet_stats stats;
    std::uint8_t latch_state;
    std::uint32_t ip_hdr_offset;
    std::uint32_t latch_offset; // of the BFD control packet
    kelm_microsecs latch_period;
    kelm_vrf *vrf; // not owned
    std::uint32_t type;
    std::uint32_t jitter_type;
    std::uint32_t ifindex;
    kelm_microsecs period;
    kelm_auth_config auth;
    bfd_auth_hdr auth_hdr; // with the key
    std::uint32_t auth_hdr_offset;
    std::uint32_t seq_num; // next authentication sequence number
    std::size_t packet_len;
    std::uint8_t *packet;          // as it goes on the wire, edited before each transmission
    unsigned long last_tx_jiffies; // tick of the last in-band transmission; 0 for none

    list_link alive; // every packet that is not freed, guarded by tx_lock

    [[nodiscard]] packet_layout layout() const
    {
        return {packet, packet_len, ip_hdr_offset, latch_offset};
    }
};

// Guards the packet tables of all vrfs.
extern spinlock_t tx_lock;

extern relaxed<bool> kelm_tx_path_ready;
extern relaxed<bool> kelm_randomize_delay; // only while the path-ready walk starts the packets

void tx_trigger_init();
void tx_path_init();

// The packet of a vrf. The caller holds tx_lock; no reference is taken.
[[nodiscard]] tx_packet *__get_packet(kelm_vrf *vrf, std::uint32_t discriminator);

// A new packet in the vrf's table, which holds its only reference; null without memory. The
// caller holds tx_lock.
[[nodiscard]] tx_packet *__create_packet(kelm_vrf *vrf, std::uint32_t discriminator);

// Drops a reference; the last one frees the packet. force marks it dead first. The caller holds
// tx_lock, not the packet's, and has unlinked the packet if the reference was the table's.
void __put_packet(tx_packet *packet, bool force);

// The vrf's transmit socket of a type, or null.
[[nodiscard]] sock *tx_socket_get(const kelm_vrf *vrf, std::uint32_t type);

// Arms the packet's timer for its next transmission. The caller holds the packet's lock.
// is_callback: called by the packet's own timer callback, whose reference then belongs to the
// armed timer; true is returned if somebody else had armed the timer, and taken a reference,
// meanwhile: the caller has one too many. Otherwise false, and a timer that was not pending
// gets a reference of its own.
[[nodiscard]] bool schedule_packet(tx_packet *packet, bool is_callback);

// Edits, sends and reschedules one packet. is_callback: as the packet's own timer callback, whose
// reference it settles; else the caller holds tx_lock.
void tx_trigger(tx_packet *packet, bool is_callback);
void tx_trigger_callback(timer_list *timer);

// Writes the UDP checksum into the packet, if it has the headers for it: with force always, without
// only if authentication changes the packet. The caller holds the packet's lock.
void update_udp_checksum(tx_packet *packet, bool force);

// Sends the packet on its socket. The number of bytes sent or a negative error number; a packet
// without a socket, or without the headers that its settings name, is not sent. The caller holds
// the packet's lock.
[[nodiscard]] int send_packet(const tx_packet *packet);

// Statistics. The caller holds the packet's lock.
void clear_packet_stats(tx_common_stats *stats);
// An in-band transmission has been tried.
void tx_record_stats(tx_packet *packet);
// Appends one KELM_MSG_TX_STATS and clears what the request says. 0, or -1 without room.
[[nodiscard]] int fill_tx_stats(sk_buff *skb, tx_packet *packet, const dump_request &request);
