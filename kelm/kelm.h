/* SPDX-License-Identifier: GPL-2.0 WITH Linux-syscall-note */
/*
 * The agent protocol: how a BFD agent in user space drives kelm.
 *
 * kelm keeps, per BFD session, the periodic transmission of a control packet and the detection
 * timer on reception. The agent keeps everything else: the state machine, the configuration, the
 * negotiation. It gives kelm ready-made packets and hears of changes and failures.
 *
 *
 * TRANSPORT
 *
 * Raw netlink, unit KELM_NETLINK_UNIT, in each network namespace on its own: a namespace with its
 * sessions and packets is a "vrf", and a request concerns the vrf of the namespace that the
 * agent's socket was opened in. Requests go to port id 0.
 *
 * A message is a 16-byte `struct nlmsghdr`, a body, and zero to three bytes of padding; several
 * may follow each other in one datagram. Every body begins with a `kelm_msg_header`. Integers in
 * headers and bodies are in host byte order; BFD packets and frames are as on the wire. Padding
 * is zero in what kelm builds and ignored in what it receives.
 *
 *   nlmsg_type    one of kelm_message_numbers
 *   nlmsg_flags   requests carry NLM_F_REQUEST, without it they are skipped; NLM_F_ACK asks for an
 *                 acknowledgement of success too. 0 in every message from kelm.
 *   nlmsg_seq     the agent's choice; answers repeat it; 0 in multicasts
 *   nlmsg_pid     the agent's port id in answers; 0 in multicasts
 *
 * A request is answered in one of three ways:
 *
 * - Acknowledged, with NLMSG_ERROR: the negative error number if the request failed, or 0 if it
 *   succeeded and carried NLM_F_ACK.
 * - Replied to by unicast, in one datagram (KELM_MSG_GET_STATS for one session). An
 *   acknowledgement follows under the rule above.
 * - Dumped (KELM_MSG_GET_STATS otherwise, KELM_MSG_SYNC without flags): a series of datagrams of
 *   whole messages, each with the agent's port id and the request's sequence number, ended by
 *   NLMSG_DONE. The next datagram is made when the agent has read the one before. A dump that
 *   has started is not acknowledged. A record that is deleted by request meanwhile makes the dump
 *   start over, so that a record may be reported twice but none is missed; a sweep, which empties
 *   a vrf, does not. A socket runs one dump at a time. Read with a buffer of 8 KiB at least: only a
 *   single message that is longer, which a frame can make it, comes in a longer datagram.
 *
 * Multicast groups: KELM_NLG_NUM_CONTROL carries KELM_MSG_RX_PACKET_CHANGE and the periodic
 * statistics, KELM_NLG_NUM_NOTIFICATION carries session failures. Multicasts can be lost when a
 * subscriber's queue is full; nothing is sent again, and a KELM_MSG_SYNC dump tells the current
 * state of everything.
 *
 *
 * ERRORS THAT ANY REQUEST CAN GET
 *
 *   -ENOMSG   the type is not 16 to 31
 *   -EPERM    the type is one that only kelm sends, or it needs CAP_NET_ADMIN, which both the
 *             process that sends the request and the one that opened the socket must have: in the
 *             initial user namespace for kelm.ko, in kelmd's own for kelmd. In strict mode every
 *             request needs it, except KELM_MSG_GET_STATS with neither KELM_STATS_CLEAR nor
 *             KELM_STATS_ALL_VRFS
 *   -ENODEV   the namespace has no vrf (yet, or any more)
 *   -EINVAL   the message is shorter than its body with the variable part that the body
 *             announces; checked before anything else in the body, nothing has changed
 *   -ENOMEM   no memory
 *   -EBUSY    a dump was asked for on a socket that is still running one
 *
 * A refused request changes nothing except where its text below says so. Every request that
 * finds its vrf marks it as claimed (see KELM_MSG_SYNC), a refused one too, unless it was refused
 * for its type or its privilege before the vrf was looked up.
 *
 *
 * TRANSMISSION (requests; CAP_NET_ADMIN)
 *
 * KELM_MSG_TX_SET_PACKET, kelm_msg_tx_set_packet and `packet_len` bytes
 *   Creates or replaces the transmit packet of a discriminator in this vrf. `packet` is exactly
 *   what goes on the wire: a whole IP datagram for KELM_TX_SESSION_IP, a whole Ethernet frame for
 *   KELM_TX_SESSION_L2. Before each transmission kelm edits it in place:
 *     - KELM_TX_MYDISC_RTT puts a time stamp, in units of 16 ns and in host byte order, into My
 *       Discriminator;
 *     - a Final bit is cleared, except in an out-of-band transmission;
 *     - a pending latch (see KELM_MSG_RX_SET_SESSION) writes diagnostic, `latch_state`, Your
 *       Discriminator 0 and `latch_period`, which also becomes the period. The packet stays so
 *       until the agent replaces it;
 *     - the authentication section gets its sequence number and digest, and the UDP header its
 *       checksum.
 *   Transmission is periodic with the jitter of `jitter_type`, once the transmit path is ready
 *   (see KELM_MSG_TX_PATH_READY); until then packets are only stored. KELM_TX_SEND_OOB sends the
 *   new contents once at the next tick, out of band, and leaves the schedule as it was: for a Poll
 *   or a Final that must not wait. Replacing a packet keeps its sequence number, its schedule and
 *   its statistics; a changed period restarts the interval statistics.
 *   The packet ends with the BFD control packet: `packet_len` is `latch_offset` + 24 + the length
 *   of the authentication section for `auth.type` (0 without, 3 + password length for a password,
 *   24 MD5, 28 SHA-1, 8 debug). For a password, `auth_hdr` holds the section as in the packet; for
 *   the digest types its key_digest holds the key. `packet` holds the section's first bytes (type,
 *   length, key id) and, for a password, the password. Only `type` of `auth` is used here.
 *     -EINVAL        discriminator 0; period 0; `packet_len` differs from the length above; the A
 *                    bit is set without a usable authentication type or section length; the UDP
 *                    or IP header does not lie in front of the BFD packet inside `packet`
 *     -EAFNOSUPPORT  `type` above KELM_TX_SESSION_L2
 *     -ENOMEM        a new record, or the settings of an existing one, may have been stored; its
 *                    previous packet bytes stay
 *     -ESHUTDOWN     the vrf is going down; settings may have been stored
 *
 * KELM_MSG_TX_DELETE_PACKET, kelm_msg_tx_delete_packet
 *   Deletes the packet; it is not sent again.
 *     -EINVAL  discriminator 0
 *     -ENOENT  no such packet in this vrf
 *
 *
 * RECEPTION (requests; CAP_NET_ADMIN)
 *
 * KELM_MSG_RX_SET_SESSION, kelm_msg_rx_set_session and `failure_packet_len` bytes
 *   Creates or reconfigures the session that receives packets with this Your Discriminator. With
 *   KELM_RX_TIMER_ACTIVE the detection timer runs from now, `multiplier` times `period`, and every
 *   packet that is accepted restarts it. When it expires, kelm multicasts `failure_packet`, a
 *   complete netlink message of the agent's own making, unchanged on KELM_NLG_NUM_NOTIFICATION
 *   (kelmd cannot carry one that is shorter than its header: it is lost, and counted in
 *   `netlink_failure_fail`); latches the packets of `latch_tx_packets` with `latch_diagnostic`; and
 *   leaves the timer stopped until the next KELM_MSG_RX_SET_SESSION. A latch packet that this vrf
 *   does not have is looked for in the others. A packet is accepted if it passes `auth`: type,
 *   interface, TTL or hop limit, and for an authenticated packet the key slot with its key id. A
 *   last sequence number other than 0 obliges a keyed peer not to go below it, and a meticulous one
 *   to stay within `multiplier` above it; reconfiguring keeps the number. A number that passes is
 *   kept even when the digest turns out to be wrong, except in strict mode; see AUTHENTICATION in
 *   kelm(7). With KELM_RX_MYDISC_RTT the session's packets are our own, looped back, and yield
 *   round-trip times. Reconfiguring keeps the statistics; a changed period restarts those of
 *   intervals and round trips. The first packet that a new session accepts is passed up.
 *     -EINVAL        discriminator 0
 *     -EAFNOSUPPORT  `type` above KELM_RX_SESSION_SBFD_INITIATOR
 *     -ENOMEM        an existing session is unchanged, a new one not created
 *     -ENXIO         a packet of `latch_tx_packets` does not exist; the session is kept and
 *                    configured, linked to the packets before that one. Its timer is untouched: one
 *                    that runs still expires and reports the failure. Whether accepted packets
 *                    restart it, and for how long, is as the request says
 *     -ESHUTDOWN     the vrf is going down; the session is kept, partly configured, its timer as
 *                    after -ENXIO
 *
 * KELM_MSG_RX_DELETE_SESSION, kelm_msg_rx_delete_session
 *   Deletes the session; no failure is reported for it any more.
 *     -EINVAL  discriminator 0
 *     -ENOENT  no such session in this vrf
 *
 *
 * NOTIFICATIONS (multicast)
 *
 * KELM_MSG_RX_PACKET_CHANGE, kelm_msg_rx_packet_change and `packet_len` bytes, on
 * KELM_NLG_NUM_CONTROL
 *   A valid packet that the state machine must see: no session for its Your Discriminator, or Your
 *   Discriminator 0; the session's first packet; a frame of another length or from another member
 *   link than the one passed up last; other contents in the 24 bytes of the mandatory section or,
 *   with authentication, in the 2 bytes after it; Poll or Final set. Packets without a session have
 *   not been authenticated. The message also occurs in a KELM_MSG_SYNC dump.
 *   In a KELM_RX_MYDISC_RTT session, My Discriminator does not count as contents, and is 0 in
 *   frames passed up for their contents or flags.
 *
 * KELM_MSG_SESSION_FAILURE, body as the agent likes, on KELM_NLG_NUM_NOTIFICATION
 *   The number set aside for the failure messages that agents build, see KELM_MSG_RX_SET_SESSION.
 *
 *
 * STATISTICS
 *
 * KELM_MSG_GET_STATS, kelm_msg_get_stats (request)
 *   With a discriminator and no flags: one unicast datagram with the KELM_MSG_TX_STATS and the
 *   KELM_MSG_RX_STATS of that discriminator in this vrf, whichever exist.
 *     -ENOENT  neither exists
 *     other    the reply could not be delivered
 *   Otherwise: a dump, per vrf a KELM_MSG_RX_STATS for every session, a KELM_MSG_TX_STATS for every
 *   packet (those of the discriminator if one is given), and with KELM_STATS_MODULE a
 *   KELM_MSG_MODULE_STATS. KELM_STATS_CLEAR clears what has been read, snapshots excepted;
 *   together with KELM_STATS_NO_REPORT it clears and reports nothing. A dump that starts over (see
 *   TRANSPORT) reports what it has cleared once more, as it is then. KELM_STATS_ALL_VRFS covers the
 *   vrfs of all namespaces, the newest first; the dump ends early if the vrf that it has come to
 *   goes away.
 *
 * KELM_MSG_SET_SESSION_STATS_INTERVAL, kelm_msg_set_session_stats_interval (request;
 * CAP_NET_ADMIN)
 *   Sets the interval of the periodic statistics, for all vrfs: at once and then every `interval`
 *   seconds, the dump with KELM_STATS_MODULE and KELM_STATS_ALL_VRFS is multicast on
 *   KELM_NLG_NUM_CONTROL in the initial namespace, without NLMSG_DONE, every message with
 *   `unsolicited` 1. Having been reported in this way, a snapshot starts again. 0 stops it.
 *     -EINVAL  the discriminator is not 0
 *
 * KELM_MSG_TX_STATS, kelm_msg_tx_stats; KELM_MSG_RX_STATS, kelm_msg_rx_stats;
 * KELM_MSG_MODULE_STATS, kelm_msg_module_stats (unicast, dumped, multicast)
 *   The counters of one packet, one session, one vrf. Minima, averages and maxima are 0 while
 *   there is no sample. The average of intervals is their sum divided by the number of packets less
 *   one, that of round trips their sum divided by the number of packets. The interval in which
 *   KELM_STATS_CLEAR came is left out of the sums while its packet counts: a snapshot's average is
 *   too low after a clear, the more so the fewer packets there are. In strict mode a vrf passes up
 *   4,096 packets without a session at once and 4,000 a second; `num_not_passed_up` counts those
 *   beyond, which are also among `num_invalid_sessions` or `num_passup_disc_0`. `timestamp_secs`
 * and `timestamp_nsecs` are the wall clock when the message was made.
 *
 *
 * SYNCHRONISATION
 *
 * KELM_MSG_SYNC, kelm_msg_sync (request; the discriminator is not looked at)
 *   Without flags: a dump of this vrf, per session the frame passed up last, if any, as
 *   KELM_MSG_RX_PACKET_CHANGE (with the session's discriminator) and a KELM_MSG_RX_SYNC, then per
 *   packet a KELM_MSG_TX_SYNC.
 *   KELM_SYNC_MARK begins a mark phase; KELM_SYNC_SWEEP ends it by deleting all sessions and
 *   packets of every vrf that has had no request since it began. A restarted agent marks, sends
 *   the configuration of all vrfs that it still manages, and sweeps. A sweep without a mark
 *   before it empties every vrf.
 *
 * KELM_MSG_RX_SYNC, kelm_msg_rx_sync; KELM_MSG_TX_SYNC, kelm_msg_tx_sync (dumped)
 *   A session that exists, and whether its detection timer runs; a packet that exists.
 *
 *
 * MODULE
 *
 * KELM_MSG_TX_PATH_READY, kelm_msg_tx_path_ready (request)
 *   Declares that the system can transmit, for all vrfs and for good: every stored packet goes out
 *   at once, and then periodically after a random first delay. The first BFD datagram that
 *   arrives in any vrf has the same effect.
 *     -ENODATA  the discriminator is not 0
 *
 * KELM_MSG_SET_DEBUG_LEVEL, kelm_msg_set_debug_level (request)
 *   Sets how much is logged: 0 nothing, 1 failures, 2 configuration and dumps too, 3 every packet
 *   too. Discriminator 0 sets the level of the module (CAP_NET_ADMIN), another one a level for that
 *   discriminator, which can only add to the module's; level 0 removes it. Levels are cut to 8
 *   bits. KELM_DEBUG_CLEAR_SESSIONS first removes the levels of all discriminators; with
 *   discriminator 0 that is all it does, and the privilege is not needed.
 *     -EPERM  discriminator 0, neither KELM_DEBUG_CLEAR_SESSIONS nor CAP_NET_ADMIN
 *     -ENOSR  100 discriminators have levels already
 */
#ifndef KELM_H
#define KELM_H

#include <stdint.h>

#include "Bfd.h"

enum { KELM_NETLINK_UNIT = 31 };

/* Multicast groups. */
enum {
    KELM_NLG_NUM_CONTROL = 1,
    KELM_NLG_NUM_NOTIFICATION = 2,
    KELM_NLG_NUM = 3 /* not a group: the group count that the kernel's socket is created with */
};

enum kelm_message_numbers {
    KELM_MSG_MIN = 16,
    KELM_MSG_TX_SET_PACKET = 16,
    KELM_MSG_TX_DELETE_PACKET = 17,
    KELM_MSG_TX_STATS = 18,
    KELM_MSG_TX_SYNC = 19,
    KELM_MSG_RX_SET_SESSION = 20,
    KELM_MSG_RX_DELETE_SESSION = 21,
    KELM_MSG_RX_STATS = 22,
    KELM_MSG_RX_PACKET_CHANGE = 23,
    KELM_MSG_RX_SYNC = 24,
    KELM_MSG_GET_STATS = 25,
    KELM_MSG_SYNC = 26,
    KELM_MSG_SESSION_FAILURE = 27,
    KELM_MSG_SET_DEBUG_LEVEL = 28,
    KELM_MSG_TX_PATH_READY = 29,
    KELM_MSG_MODULE_STATS = 30,
    KELM_MSG_SET_SESSION_STATS_INTERVAL = 31,
    KELM_MSG_MAX = 32 /* one past the last */
};

enum kelm_tx_session_types {
    KELM_TX_SESSION_IP = 0,
    KELM_TX_SESSION_L2 = 1,
    KELM_TX_SESSION_MAX = 2
};

/* The UDP port that packets of such a session usually arrive on is no part of the lookup. */
enum kelm_rx_session_types {
    KELM_RX_SESSION_BFD = 0,            /* 3784, RFC 5881 */
    KELM_RX_SESSION_ECHO = 1,           /* 3785, RFC 5881 */
    KELM_RX_SESSION_LAG = 2,            /* 6784, RFC 7130 */
    KELM_RX_SESSION_MULTIHOP = 3,       /* 4784, RFC 5883 */
    KELM_RX_SESSION_SBFD_INITIATOR = 4, /* 47657, RFC 7881 replies */
    KELM_RX_SESSION_MAX = 5
};

enum {
    KELM_AUTH_KEY_LEN = 20,
    KELM_NUM_AUTH_KEYS = 2,
    KELM_NUM_LATCH_TX_PACKETS = 8,
    KELM_MAX_SESSION_DEBUGS = 100
};

/* kelm_auth_config.flags; with both set no packet is accepted. */
enum { KELM_AUTH_TTL_255 = 0x01, KELM_AUTH_TTL_254 = 0x02 };

/* kelm_msg_tx_set_packet.flags */
enum { KELM_TX_SEND_OOB = 0x01, KELM_TX_MYDISC_RTT = 0x02 };

/* kelm_msg_rx_set_session.flags */
enum { KELM_RX_TIMER_ACTIVE = 0x01, KELM_RX_MYDISC_RTT = 0x02 };

/* kelm_msg_get_stats.flags */
enum {
    KELM_STATS_CLEAR = 0x1,
    KELM_STATS_NO_REPORT = 0x2,
    KELM_STATS_MODULE = 0x4,
    KELM_STATS_ALL_VRFS = 0x8
};

/* kelm_msg_sync.flags */
enum { KELM_SYNC_MARK = 0x1, KELM_SYNC_SWEEP = 0x2 };

/* kelm_msg_set_debug_level.flags */
enum { KELM_DEBUG_CLEAR_SESSIONS = 0x1 };

typedef uint32_t kelm_microsecs;

/* A time of day, cut to 32 bits each. */
struct kelm_time {
    uint32_t sec;
    uint32_t nsec;
};

struct kelm_auth_config {
    uint32_t ifindex; /* the only interface that packets may arrive on; 0 for any */
    uint8_t type;     /* bfd_auth_types */
    uint8_t flags;    /* KELM_AUTH_TTL_*: the TTL or hop limit that packets must arrive with */
    uint8_t padding[2];
};

/* A key slot. When both slots have the packet's key id, the first is used. */
struct kelm_bfd_auth_key {
    uint8_t key[KELM_AUTH_KEY_LEN]; /* password: up to 16 bytes, then NULs; MD5: the first 16 */
    uint8_t key_id;
    uint8_t key_valid; /* non-zero when the slot holds a key */
    uint16_t padding;
};

struct kelm_msg_header {
    uint32_t discriminator; /* the session's local discriminator; 0 where there is no session */
};

/* Arrays without a bound are an extension in C++. */
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"

struct kelm_msg_tx_set_packet {
    struct kelm_msg_header header;
    uint32_t ifindex;       /* interface to send on; 0 for none */
    uint16_t type;          /* kelm_tx_session_types */
    uint16_t jitter_type;   /* bfd_tx_jitter_types; others as BFD_TX_JITTER_NONE */
    kelm_microsecs period;  /* of transmission, before jitter */
    uint32_t ip_hdr_offset; /* within packet */
    uint32_t latch_offset;  /* of the BFD control packet within packet; the UDP header ends here */
    kelm_microsecs latch_period; /* once latched: the period and Desired Min TX Interval */
    uint8_t latch_state;         /* once latched: bfd_states */
    uint8_t flags;               /* KELM_TX_SEND_OOB, KELM_TX_MYDISC_RTT */
    uint8_t padding[2];
    struct kelm_auth_config auth;
    union bfd_auth_hdr auth_hdr; /* digest types: the key, in key_digest */
    uint32_t packet_len;
    uint8_t packet[];
};

struct kelm_msg_tx_delete_packet {
    struct kelm_msg_header header;
};

struct kelm_msg_rx_set_session {
    struct kelm_msg_header header;
    uint8_t type;             /* kelm_rx_session_types */
    uint8_t flags;            /* KELM_RX_TIMER_ACTIVE, KELM_RX_MYDISC_RTT */
    uint8_t multiplier;       /* detect multiplier */
    uint8_t latch_diagnostic; /* bfd_diagnostics; 0 latches nothing */
    uint32_t latch_tx_packets[KELM_NUM_LATCH_TX_PACKETS]; /* discriminators, up to the first 0 */
    kelm_microsecs period; /* the detection time is this times multiplier, modulo 2^32 */
    struct kelm_auth_config auth;
    struct kelm_bfd_auth_key auth_key[KELM_NUM_AUTH_KEYS];
    uint32_t failure_packet_len;
    uint8_t failure_packet[]; /* a complete netlink message, header included */
};

struct kelm_msg_rx_delete_session {
    struct kelm_msg_header header;
};

struct kelm_msg_get_stats {
    struct kelm_msg_header header; /* 0: all sessions and packets */
    uint32_t flags;                /* KELM_STATS_* */
};

struct kelm_msg_sync {
    struct kelm_msg_header header;
    uint32_t flags; /* KELM_SYNC_* */
};

struct kelm_msg_set_debug_level {
    struct kelm_msg_header header; /* 0: the level of the module */
    uint32_t flags;                /* KELM_DEBUG_CLEAR_SESSIONS */
    uint16_t debug_level;
    uint8_t padding[2];
};

struct kelm_msg_tx_path_ready {
    struct kelm_msg_header header; /* must be 0 */
};

struct kelm_msg_set_session_stats_interval {
    struct kelm_msg_header header; /* must be 0 */
    uint16_t interval;             /* seconds; 0 stops the periodic statistics */
    uint8_t padding[2];
};

/* Lateness is the time from one in-band transmission to the next. */
struct kelm_msg_tx_stats {
    struct kelm_msg_header header;
    kelm_microsecs min_lateness; /* since creation, change of period, or KELM_STATS_CLEAR */
    kelm_microsecs avg_lateness;
    kelm_microsecs max_lateness;
    struct kelm_time last_tx_time;
    uint64_t num_sent;
    uint64_t num_tx_errors;
    uint64_t num_empty_packets; /* there was no packet to send */
    uint64_t num_short_packets; /* the packet was too short to edit */
    uint64_t num_latch_errors;
    uint64_t num_latches;
    uint64_t sent_within_1p; /* transmissions with a lateness of at most one period */
    uint64_t sent_within_2p; /* above one, at most two */
    uint64_t sent_within_3p;
    uint64_t sent_after_3p;
    uint64_t snapshot_num_sent; /* snapshot_*: since the last periodic statistics */
    kelm_microsecs snapshot_min_lateness;
    kelm_microsecs snapshot_avg_lateness;
    kelm_microsecs snapshot_max_lateness;
    uint32_t padding;
    uint64_t snapshot_sent_within_1p;
    uint64_t snapshot_sent_within_2p;
    uint64_t snapshot_sent_within_3p;
    uint64_t snapshot_sent_after_3p;
    uint64_t timestamp_secs;
    uint64_t timestamp_nsecs;
    uint8_t unsolicited; /* 1 in the periodic statistics */
    uint8_t padding2[7];
};

struct kelm_msg_tx_sync {
    struct kelm_msg_header header;
};

struct kelm_msg_rx_stats {
    struct kelm_msg_header header;
    kelm_microsecs min_period; /* between accepted packets; since as in kelm_msg_tx_stats */
    kelm_microsecs avg_period;
    kelm_microsecs max_period;
    struct kelm_time last_rx_time;
    struct kelm_time last_state_change; /* the last configuration or detection timeout */
    uint64_t num_received;              /* accepted */
    /* Refused by `auth`. A packet with too short a section for any type would count twice, but
     * fails the checks of RFC 5880 first, and counts in rfc_drops. */
    uint64_t num_auth_fail;
    uint64_t num_passup;
    uint64_t num_auth_type_mismatch; /* those of them with another type than that of `auth` */
    uint64_t packet_alloc_fail;      /* no memory to keep a copy of a packet */
    uint64_t pskb_expand_fail;       /* no memory to pass a packet up */
    uint64_t num_timeout;
    uint64_t snapshot_num_received;
    kelm_microsecs snapshot_min_period;
    kelm_microsecs snapshot_avg_period;
    kelm_microsecs snapshot_max_period;
    uint32_t padding;
    kelm_microsecs min_rtt;
    kelm_microsecs avg_rtt;
    kelm_microsecs max_rtt;
    kelm_microsecs last_rtt;
    kelm_microsecs snapshot_min_rtt;
    kelm_microsecs snapshot_avg_rtt;
    kelm_microsecs snapshot_max_rtt;
    uint32_t padding2;
    uint64_t timestamp_secs;
    uint64_t timestamp_nsecs;
    uint8_t unsolicited;
    uint8_t padding3[7];
};

struct kelm_msg_rx_packet_change {
    struct kelm_msg_header header; /* the packet's Your Discriminator */
    uint32_t ifindex;              /* that the frame arrived on */
    uint32_t member_ifindex;       /* the same for the link of an aggregate; 0 if unknown */
    uint32_t l3_offset;            /* of the IP header within packet */
    uint32_t bfd_offset;           /* of the BFD control packet within packet */
    uint32_t packet_len;
    uint8_t packet[]; /* the frame, from its link-layer header to its end */
};

struct kelm_msg_rx_sync {
    struct kelm_msg_header header;
    uint32_t timer_active; /* 1 while the detection timer runs, else 0 */
};

struct kelm_msg_module_stats {
    struct kelm_msg_header header; /* 0 */
    uint32_t num_not_passed_up;    /* packets beyond the limit of strict mode */
    uint64_t rfc_drops;            /* packets that failed the checks of RFC 5880 section 6.8.6 */
    uint64_t rx_packet_missing;    /* receive callbacks that found no packet */
    uint64_t num_invalid_sessions; /* packets for no session */
    uint64_t num_passup_disc_0;    /* packets with Your Discriminator 0 */
    uint64_t netlink_packet_change_fail;    /* packet changes that no agent got */
    uint64_t netlink_failure_fail;          /* session failures that no agent got */
    uint64_t pskb_expand_fail;              /* no memory to pass up a packet without a session */
    uint64_t session_stats_no_skb_fail;     /* periodic statistics cut short: no memory */
    uint64_t session_stats_send_stats_fail; /* or by an error */
    uint64_t session_stats_broadcast_fail;  /* datagrams of them that no agent got */
    uint64_t timestamp_secs;
    uint64_t timestamp_nsecs;
    uint64_t seq_num; /* from 1, counts the periodic messages of this kind */
    uint8_t unsolicited;
    uint8_t strict; /* 1 in strict mode */
    uint8_t padding[6];
};

#pragma GCC diagnostic pop

#endif
