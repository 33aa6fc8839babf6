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

#include "kelm/kelm_internal.h"
#include "kelm/stats.h"
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

// A copy of the last frame passed up, from its link-layer header to the end of the BFD packet.
struct stored_frame {
    std::size_t len; // 0 for none
    std::uint8_t *data;
};

// Owned by its chain, and freed only after it has left it.
struct rx_session {
    list_link list;              // in a chain of the vrf's sessions, guarded by rx_lock
    rx_session *next_in_bucket;  // the vrf's index of sessions, guarded by rx_lock
    std::uint32_t discriminator; // the Your Discriminator of its packets
    spinlock_t lock;             // guards what follows
    timer_list timer;            // the detection timer, see rx_detection.h
    rx_stats stats;
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

// Module load.
void rx_table_init();

// Request handlers, see handler_fn.
int kelm_rx_set_session(kelm_vrf *vrf, sk_buff *skb, const nlmsghdr *hdr);
int kelm_rx_delete_session(kelm_vrf *vrf, sk_buff *skb, const nlmsghdr *hdr);

// Deletes every session of a vrf. Task context.
void kelm_rx_clear(kelm_vrf *vrf);
