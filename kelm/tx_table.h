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

#include "kelm/kelm_internal.h"
#include "kelm/stats.h"
#include "kelm/tx_layout.h"
#include "platform/spinlock.h"
#include "platform/timer.h"

struct tx_packet {
    list_link list;            // in a chain of the vrf's packets, guarded by tx_lock
    tx_packet *next_in_bucket; // the vrf's index of packets, guarded by tx_lock
    std::uint32_t discriminator;
    spinlock_t lock; // guards what follows, but for the two atomics
    std::atomic<std::int32_t> refcount;
    std::atomic<std::int32_t> latch_diag; // to be latched at the next transmission; 0 for none
    timer_list timer;
    bool send_oob_packet; // the contents go out once at once, outside the schedule
    bool mydisc_rtt;
    unsigned long inband_expires; // the tick it was due at when send_oob_packet was set
    sock *sk;                     // the vrf's socket for type; null if it had none
    bool dead;                    // deleted: never sent or scheduled again
    tx_stats stats;
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
