// SPDX-License-Identifier: GPL-2.0
//
// Transmit packets: the record, the tables, and the references on records.
//
// References on a packet: one for membership in a table, one for a pending timer, one per
// receive session that links it. So a packet in a table never reaches zero, and neither does one
// with a pending timer.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "kelm/cache_line.h"
#include "kelm/kelm_internal.h"
#include "kelm/stats.h"
#include "kelm/stored_bytes.h"
#include "kelm/tx_layout.h"
#include "platform/spinlock.h"
#include "platform/timer.h"

// The members lie in the order of their use. A transmission touches six cache lines, seven over
// IPv6: what is sent where, and lock; settings; statistics, two; timer; bytes, one or two. They are
// fetched at once when the timer has fired.
struct tx_packet {
    std::uint32_t discriminator;
    std::atomic<std::int32_t> refcount;
    std::atomic<std::int32_t> latch_diag; // to be latched at the next transmission; 0 for none
    kelm_microsecs period;
    sock *sk;            // the vrf's socket for type; null if it had none
    stored_bytes packet; // as it goes on the wire, edited before each transmission
    spinlock_t lock;     // guards all but discriminator, the atomics, vrf and the links
    std::uint32_t type;
    std::uint32_t ifindex;
    std::uint32_t ip_hdr_offset;
    std::uint32_t latch_offset; // of the BFD control packet
    std::uint32_t jitter_type;
    std::uint32_t seq_num; // next authentication sequence number
    kelm_auth_config auth;
    unsigned long last_tx_jiffies; // tick of the last in-band transmission; 0 for none
    unsigned long inband_expires;  // the tick it was due at when send_oob_packet was set
    kelm_microsecs latch_period;
    std::uint8_t latch_state;
    bool send_oob_packet; // the contents go out once at once, outside the schedule
    bool mydisc_rtt;
    bool dead; // deleted: never sent or scheduled again
    tx_stats stats;
    tx_packet *next_in_bucket; // in the vrf's index of packets, guarded by tx_lock
    list_link list;            // in a chain of the vrf's packets, guarded by tx_lock
    timer_list timer;
    packet_room room;      // of packet
    bfd_auth_hdr auth_hdr; // with the key
    kelm_vrf *vrf;         // not owned
    list_link alive;       // every packet that is not freed, guarded by tx_lock

    [[nodiscard]] packet_layout layout() const
    {
        return {packet.data, packet.len, ip_hdr_offset, latch_offset};
    }
};

static_assert(in_one_line(0, offsetof(tx_packet, lock) + hot_lock_size));
static_assert(in_one_line(offsetof(tx_packet, type), offsetof(tx_packet, stats)));
static_assert(offsetof(tx_packet, stats) % cache_line == 0);
static_assert(in_one_line(offsetof(tx_packet, timer), offsetof(tx_packet, timer) + hot_timer_size));
static_assert(offsetof(tx_packet, room) % cache_line == 0);

// Guards the packet tables of all vrfs.
extern spinlock_t tx_lock;

// Module load. And after the last vrf is gone: frees the deleted packets whose timers are still
// pending.
void tx_table_init();
void kelm_tx_release();

// A new packet in the vrf's table, which holds its only reference; null without memory. The
// caller holds tx_lock.
[[nodiscard]] tx_packet *__create_packet(kelm_vrf *vrf, std::uint32_t discriminator);

// Drops a reference; the last one frees the packet. force marks it dead first. The caller holds
// tx_lock, not the packet's, and has unlinked the packet if the reference was the table's.
void __put_packet(tx_packet *packet, bool force);

// Drops a reference. Any context; takes tx_lock.
void kelm_tx_put_packet(tx_packet *packet);

// The packet of this discriminator in this vrf, or else in another, with a reference taken; null
// if there is none. Any context; takes kelm_vrf_lock and tx_lock.
[[nodiscard]] tx_packet *kelm_tx_get_packet(kelm_vrf *vrf, std::uint32_t discriminator);

// Deletes every packet of a vrf. Any context.
void kelm_tx_clear(kelm_vrf *vrf);
