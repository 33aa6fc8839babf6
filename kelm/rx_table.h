// SPDX-License-Identifier: GPL-2.0
//
// Receive sessions: the record, the tables, and the requests that create, reconfigure and delete
// sessions.
//
// A session is found under rx_lock and used under its own lock, which nests inside. The receive
// path lets go of rx_lock once it holds the session's; the detection timeout takes the session's
// lock alone.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kelm/cache_line.h"
#include "kelm/kelm_internal.h"
#include "kelm/stats.h"
#include "kelm/stored_bytes.h"
#include "platform/spinlock.h"
#include "platform/timer.h"

struct nlmsghdr;

// Where a frame came in, and where its headers lie, from the link-layer header on.
struct frame_info {
    int ifindex;
    int member_ifindex; // member link of a link aggregate; 0 where the host cannot tell
    std::uint32_t l3_offset;
    std::uint32_t bfd_offset;
};

// Owned by its chain, and freed only after it has left it.
//
// The members lie in the order of their use. A packet that says nothing new touches five cache
// lines: identity, settings and lock; last frame, last event and lifetime; snapshot; timer; the BFD
// packet stored last. All but the first are fetched at once when the session has been found.
struct rx_session {
    rx_session *next_in_bucket;  // in the vrf's index of sessions, guarded by rx_lock
    std::uint32_t discriminator; // the Your Discriminator of its packets
    std::uint32_t seq_num;       // last accepted authentication sequence number; 0 for none
    kelm_auth_config auth;
    kelm_microsecs period;
    std::uint8_t multiplier;
    // Whether accepted packets restart the timer, which says nothing of whether it runs: a refused
    // request may have changed it.
    bool timer_active;
    // Whether the timer's expiry is to be reported: true from the start of the timer until it
    // expires or a request stops it. Unlike timer_pending, it still holds while the callback of an
    // expired timer waits for the lock.
    bool timer_armed;
    bool mydisc_rtt;     // My Discriminator of its packets is our own time stamp, returned
    kelm_vrf *vrf;       // counted
    spinlock_t lock;     // guards all but next_in_bucket, discriminator and list
    frame_info info;     // of the last frame passed up
    stored_bytes packet; // that frame, from its link-layer header to the end of the BFD packet
    rx_stats stats;
    timer_list timer; // the detection timer, see rx_detection.h
    kelm_bfd_auth_key auth_key[KELM_NUM_AUTH_KEYS];
    list_link list;     // in a chain of the vrf's sessions, guarded by rx_lock
    packet_room room;   // of packet
    std::uint32_t type; // kelm_rx_session_types
    tx_packet *latch_tx_packets[KELM_NUM_LATCH_TX_PACKETS]; // counted; null ends the list
    std::uint8_t latch_diagnostic;
    sk_buff *fail_skb; // the failure message
};

static_assert(in_one_line(0, offsetof(rx_session, lock) + hot_lock_size));
static_assert(in_one_line(offsetof(rx_session, info),
                          offsetof(rx_session, stats) + sizeof(timespec64)));
static_assert(in_one_line(offsetof(rx_session, timer),
                          offsetof(rx_session, timer) + hot_timer_size));
// The BFD packet, behind Ethernet, IPv4 or IPv6, and UDP.
static_assert(in_one_line(offsetof(rx_session, room) + 42,
                          offsetof(rx_session, room) + 62 + BFD_CTRL_LEN));

// To be called as soon as it is known that a packet of the session is to be received.
inline void prefetch_for_packet(const rx_session &session)
{
    prefetch(session.lock, session.info, session.stats.snapshot, session.timer, session.room[62]);
}

// Guards the session tables of all vrfs.
extern spinlock_t rx_lock;

// Module load.
void rx_table_init();

// Request handlers, see handler_fn.
int kelm_rx_set_session(kelm_vrf *vrf, sk_buff *skb, const nlmsghdr *hdr);
int kelm_rx_delete_session(kelm_vrf *vrf, sk_buff *skb, const nlmsghdr *hdr);

// Deletes every session of a vrf. Task context.
void kelm_rx_clear(kelm_vrf *vrf);
