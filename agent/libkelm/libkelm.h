/* SPDX-License-Identifier: GPL-2.0 */
/*
 * libkelm's plain C interface, for agents in C and for bindings of other languages. It offers what
 * the C++ headers beside it do, on opaque handles, with error numbers instead of exceptions. What
 * the requests do, and what kelm answers and tells, is written in kelm.h; this is how to get there.
 *
 * Functions that can fail return a negative error number (-EPERM, ...), and 0 or more when they
 * succeed; what they were to fill in is then filled in, and else untouched. kelm_error_text() has
 * the failure in words. Pointers may be null only where that is said.
 *
 * A handle is for one thread at a time; different handles do not know of each other.
 */
#ifndef LIBKELM_LIBKELM_H
#define LIBKELM_LIBKELM_H

#include <stddef.h>
#include <stdint.h>

#include "kelm.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * What was wrong, and where that helps what to do, when a function last failed in this thread: one
 * sentence without a line break. Good until the next failure in this thread.
 */
const char *kelm_error_text(void);

/*
 * Connection
 */

/* An agent's connection to kelm in one network namespace. */
typedef struct kelm_client kelm_client;

/*
 * Connects to kelm in the network namespace `netns`: a name below /run/netns, a path (with a
 * slash), or null for the caller's own. The kernel module is preferred to kelmd. *client is to be
 * closed.
 *
 *   -ECONNREFUSED  kelm does not run there
 *   -ENOENT        there is no such namespace
 *   -EPERM         who listens is neither root nor the caller; or the namespace may not be entered
 *   -ETIMEDOUT     kelmd does not answer
 */
int kelm_client_open(const char *netns, kelm_client **client);

/*
 * Completes submitted requests with -ECANCELED. Sessions and packets stay: kelm does not notice
 * that an agent is gone. Null is allowed.
 */
void kelm_client_close(kelm_client *client);

/*
 * To wait on, for POLLIN, together with other descriptors. Events that came in while a request was
 * being answered are waiting in the client and do not make it readable: poll only after
 * kelm_client_next_event() with timeout 0 has returned 0. Stays the client's.
 */
int kelm_client_fd(const kelm_client *client);

/* Whether kelm is the kernel module (1) or kelmd (0). */
int kelm_client_is_kernel(const kelm_client *client);

/*
 * How long kelm may be silent about a request before it fails with -ETIMEDOUT: 10 s at first.
 * Answers to earlier requests are no silence.
 */
void kelm_client_set_answer_timeout(kelm_client *client, unsigned int milliseconds);

/*
 * Requests; each returns when kelm has acknowledged it. Besides what kelm.h says of each:
 *
 *   -ETIMEDOUT    kelm does not answer; whether the request was done is not known
 *   -ECONNRESET, -EPIPE
 *                 kelmd has ended: close the client
 */

/*
 * KELM_MSG_TX_SET_PACKET with `packet_len` bytes at `packet`; settings->packet_len is not looked
 * at. kelm_build_packet() fills in both.
 */
int kelm_client_set_packet(kelm_client *client, const struct kelm_msg_tx_set_packet *settings,
                           const void *packet, size_t packet_len);

/* KELM_MSG_TX_DELETE_PACKET */
int kelm_client_delete_packet(kelm_client *client, uint32_t discriminator);

/*
 * KELM_MSG_RX_SET_SESSION with `failure_len` bytes at `failure`, a whole netlink message;
 * settings->failure_packet_len is not looked at. With `failure` null it is a
 * KELM_MSG_SESSION_FAILURE with the session's discriminator, a kelm_msg_header, as its body.
 */
int kelm_client_set_session(kelm_client *client, const struct kelm_msg_rx_set_session *settings,
                            const void *failure, size_t failure_len);

/* KELM_MSG_RX_DELETE_SESSION */
int kelm_client_delete_session(kelm_client *client, uint32_t discriminator);

/* KELM_MSG_TX_PATH_READY */
int kelm_client_tx_path_ready(kelm_client *client);

/* KELM_MSG_SYNC with KELM_SYNC_MARK or KELM_SYNC_SWEEP: concerns the namespaces of all agents. */
int kelm_client_sync_mark(kelm_client *client);
int kelm_client_sync_sweep(kelm_client *client);

/* KELM_MSG_SET_DEBUG_LEVEL; KELM_DEBUG_* in `flags`. */
int kelm_client_set_debug_level(kelm_client *client, uint32_t discriminator, uint16_t level,
                                uint32_t flags);

/* KELM_MSG_SET_SESSION_STATS_INTERVAL; 0 stops the periodic statistics. */
int kelm_client_set_stats_interval(kelm_client *client, uint16_t seconds);

/*
 * Many requests at once
 *
 * kelm_client_submit() queues a request and returns; kelm_client_progress() sends what may be sent,
 * receives what has arrived, and calls the completions. Up to 64 requests are under way at a time,
 * in the order in which they were submitted; a dump waits for the end of the one before it, and
 * others overtake it. In an event loop:
 *
 *     struct pollfd waiting = {kelm_client_fd(client), kelm_client_poll_events(client), 0};
 *     poll(&waiting, 1, kelm_client_timeout(client));
 *     kelm_client_progress(client);
 *
 * Functions that wait for an answer or an event call completions, too.
 */

/* What kelm answered with: reports in their order. */
typedef struct kelm_dump kelm_dump;

/*
 * Called exactly once for each request that was submitted. `result` is 0 or a negative error
 * number, of which kelm_error_text() has the text; after one of kelm's, the request has done what
 * kelm.h says, and after others it is not known whether it was carried out:
 *
 *   -ETIMEDOUT  kelm has been silent for too long
 *   -ENOBUFS    the answer was lost, because events arrive faster than they are read
 *   -ECANCELED  the client was closed
 *   others      the connection failed
 *
 * `replies` are what kelm answered with, as from kelm_client_statistics() or
 * kelm_client_sync_dump(); they are freed afterwards. A completion may submit requests, and must
 * not close the client.
 */
typedef void kelm_completion(void *context, int result, kelm_dump *replies);

/*
 * Queues a request of type KELM_MSG_*. `body` is its structure of kelm.h. For
 * KELM_MSG_TX_SET_PACKET and KELM_MSG_RX_SET_SESSION, `rest` is the packet or the failure message
 * and replaces the length in the body, as in kelm_client_set_packet() and
 * kelm_client_set_session(); for others it is null. Everything is copied. `context` is passed to
 * `done`, which is never called from within this function.
 *
 *   -EINVAL     not a request's type
 *   -ENOBUFS    requests of more than 32 MiB are waiting
 *   -ECANCELED  the client is being closed
 */
int kelm_client_submit(kelm_client *client, uint16_t type, const void *body, const void *rest,
                       size_t rest_length, kelm_completion *done, void *context);

/*
 * Moves requests on, without waiting. Fails when the connection does, with all requests completed:
 * close the client.
 */
int kelm_client_progress(kelm_client *client);

/* What to poll the descriptor for: POLLIN, and POLLOUT while there is something to send. */
short kelm_client_poll_events(const kelm_client *client);

/* Milliseconds until kelm_client_progress() is due even without events; -1: no limit. */
int kelm_client_timeout(const kelm_client *client);

/* The number of requests that are not completed. */
size_t kelm_client_outstanding(const kelm_client *client);

/*
 * What kelm tells
 */

enum {
    /* Notifications have been lost: kelm_client_sync_dump() tells where things stand. No body. */
    KELM_REPORT_LOST = 0,
    /* A message with the number of one of kelm.h's that is not laid out like it. */
    KELM_REPORT_MALFORMED = 1
};

/*
 * A message from kelm, or a failure message as an agent made it. Where `type` is a number of
 * kelm.h, `body` holds the whole structure that goes with it (kelm_msg_rx_packet_change for
 * KELM_MSG_RX_PACKET_CHANGE, ...; kelm_msg_header for KELM_MSG_SESSION_FAILURE), aligned for it,
 * and a frame is as long as the message says, with its offsets inside it. Other types are other
 * agents' own.
 */
struct kelm_report {
    uint16_t type; /* KELM_MSG_* or KELM_REPORT_* */
    size_t length; /* of the body */
    const void *body;
};

/*
 * Hears the multicast groups of `mask` from now on and no others: bit 0 is group 1,
 * KELM_NLG_NUM_CONTROL, bit 1 group 2, KELM_NLG_NUM_NOTIFICATION.
 *
 *   -EPERM  that needs CAP_NET_ADMIN
 */
int kelm_client_subscribe(kelm_client *client, uint32_t mask);

/*
 * The next event, waited for at most so long. Returns 1 when there is one, else 0. The body is
 * good until the next call of this function with this client, or its end.
 */
int kelm_client_next_event(kelm_client *client, unsigned int timeout_milliseconds,
                           struct kelm_report *event);

/*
 * KELM_MSG_SYNC without flags: the state of all sessions and packets of the namespace. *dump is to
 * be freed. A session or packet may occur twice, the later time being newer.
 *
 *   -ENOBUFS  events come in faster than they are read, which spoils the dump
 */
int kelm_client_sync_dump(kelm_client *client, kelm_dump **dump);

/*
 * KELM_MSG_GET_STATS: the statistics of one discriminator, or of all with 0; KELM_STATS_* in
 * `flags`. *dump is to be freed; with KELM_STATS_NO_REPORT it is empty. A session or packet may
 * occur twice, the later time being newer; but with KELM_STATS_CLEAR the first one was cleared as
 * it was read: add up the counters, and take the minima, averages, maxima and times from the first.
 *
 *   -ENOBUFS  as above; with KELM_STATS_CLEAR, what was cleared may be lost
 */
int kelm_client_statistics(kelm_client *client, uint32_t discriminator, uint32_t flags,
                           kelm_dump **dump);

/* Returns 1 and the next report, or 0 at the end. The body is good until the dump is freed. */
int kelm_dump_next(kelm_dump *dump, struct kelm_report *report);

/* Null is allowed. */
void kelm_dump_free(kelm_dump *dump);

/*
 * Packets
 */

/* The mandatory section of a control packet (RFC 5880 section 4.1), in host byte order. */
struct kelm_bfd {
    uint8_t version; /* decoded packets; 1 is always built */
    uint8_t diag;    /* bfd_diagnostics */
    uint8_t state;   /* bfd_states */
    uint8_t flags;   /* BFD_FLAG_*; that of authentication is built as the authentication is */
    uint8_t detect_multiplier;
    uint32_t my_discriminator;
    uint32_t your_discriminator;
    kelm_microsecs min_tx_interval;
    kelm_microsecs min_rx_interval;
    kelm_microsecs min_echo_rx_interval;
};

/* What a packet to be sent is made of. The pointers are only read during the call. */
struct kelm_packet {
    const char *source; /* IPv4 or IPv6 addresses in text form, both of one family */
    const char *destination;
    uint16_t source_port; /* RFC 5881 section 4: from 49152, the same for the session's life */
    uint16_t destination_port;
    uint8_t ttl;                      /* or hop limit */
    uint8_t traffic_class;            /* or type of service */
    const char *ethernet_destination; /* "02:00:00:12:34:56"; null: an IP datagram, no frame */
    const char *ethernet_source;
    struct kelm_bfd bfd;
    uint8_t auth_type; /* bfd_auth_types */
    uint8_t key_id;
    const void *key; /* password: 1 to 16 bytes, none 0; MD5: 1 to 16; SHA-1: 1 to 20 */
    size_t key_length;
};

enum {
    KELM_PACKET_ROOM = 128, /* as much as kelm_build_packet() ever needs */
    KELM_ADDRESS_ROOM = 46  /* the longest text of an address, with its end */
};

/*
 * Sets everything to what a single-hop session (RFC 5881) begins with: destination port 3784, TTL
 * 255, traffic class 0xc0, state Down, detect multiplier 3, the Control Plane Independent bit
 * (kelm continues without its agent), no authentication; the rest is 0.
 */
void kelm_packet_init(struct kelm_packet *packet);

/*
 * Writes the packet as it goes on the wire, lengths and checksums filled in, and sets those fields
 * of `settings` that tell kelm about it: type, ip_hdr_offset, latch_offset, auth.type, auth_hdr.
 * Returns the packet's length. `settings` then holds the key.
 *
 *   -EINVAL    an address, a key or the authentication type is none, or they do not fit
 *   -EMSGSIZE  the packet is longer than `room`
 */
int kelm_build_packet(const struct kelm_packet *packet, struct kelm_msg_tx_set_packet *settings,
                      void *buffer, size_t room);

/*
 * Fills in a key slot of a session; the key as in kelm_packet.
 *
 *   -EINVAL  the key or the authentication type is none, or they do not fit
 */
int kelm_build_key(uint8_t auth_type, uint8_t key_id, const void *key, size_t key_length,
                   struct kelm_bfd_auth_key *slot);

/* A received packet, taken apart. */
struct kelm_frame {
    char source[KELM_ADDRESS_ROOM]; /* "" where there is no readable IP header */
    char destination[KELM_ADDRESS_ROOM];
    uint8_t ttl; /* or hop limit */
    uint16_t source_port;
    uint16_t destination_port;
    struct kelm_bfd bfd;
    uint8_t auth_type;         /* BFD_AUTH_NONE without a section */
    uint8_t auth_key_id;       /* 0 for BFD_AUTH_DEBUG_SEQNUM, which has none */
    uint8_t auth_has_sequence; /* 1 for the types that have a sequence number */
    uint32_t auth_sequence;
};

/*
 * Takes apart the frame of a KELM_MSG_RX_PACKET_CHANGE report; what the packet says is not judged.
 *
 *   -EINVAL   `report` is of another type
 *   -EBADMSG  the frame holds no BFD packet
 */
int kelm_decode_frame(const struct kelm_report *report, struct kelm_frame *frame);

/* Words for bfd_states and bfd_diagnostics, "admin-down"; "?" where there is none. */
const char *kelm_state_name(uint8_t state);
const char *kelm_diagnostic_name(uint8_t diagnostic);

#ifdef __cplusplus
}
#endif

#endif
