/* SPDX-License-Identifier: GPL-2.0 WITH Linux-syscall-note */
/*
 * The BFD control packet and its authentication sections (RFC 5880 section 4), and the numbers
 * that go with them.
 *
 * The structures are laid over packet bytes: every field wider than 8 bits is in network byte
 * order, and a packet inside a frame need not be aligned. Code that cannot vouch for the
 * alignment reads the fields through byte pointers.
 *
 * For C11 and C++20, on compilers that fill bit fields from the least significant bit.
 */
#ifndef BFD_H
#define BFD_H

#include <stdint.h>

#ifdef __cplusplus
#define BFD_STATIC_ASSERT(condition) static_assert(condition, #condition)
#else
#define BFD_STATIC_ASSERT(condition) _Static_assert(condition, #condition)
#endif

#define BFD_ASSERT_SIZE(type, size) BFD_STATIC_ASSERT(sizeof(type) == (size))
#define BFD_ASSERT_OFFSET(type, field, offset)                                                     \
    BFD_STATIC_ASSERT(__builtin_offsetof(type, field) == (offset))

enum { BFD_VERSION = 1 };

/* Lengths in bytes, and positions counted from the start of the control packet. */
enum {
    BFD_CTRL_LEN = 24, /* the mandatory section */
    BFD_AUTH_OFFSET = BFD_CTRL_LEN,
    BFD_AUTH_COMMON_LEN = 3, /* type, len, key_id: what a password follows */
    BFD_AUTH_PASSWORD_MIN_LEN = 4,
    BFD_AUTH_PASSWORD_MAX_LEN = 19,
    BFD_AUTH_DEBUG_SEQNUM_LEN = 8,
    BFD_AUTH_MD5_LEN = 24,
    BFD_AUTH_SHA1_LEN = 28,
    BFD_AUTH_MAX_LEN = BFD_AUTH_SHA1_LEN,
    BFD_PASSWORD_MAX_LEN = 16,
    BFD_MD5_DIGEST_LEN = 16,
    BFD_SHA1_DIGEST_LEN = 20
};

/* Byte 0 of the control packet. */
enum { BFD_VERSION_MASK = 0xe0, BFD_VERSION_SHIFT = 5, BFD_DIAG_MASK = 0x1f };

/* Byte 1 of the control packet. */
enum {
    BFD_STATE_MASK = 0xc0,
    BFD_STATE_SHIFT = 6,
    BFD_FLAG_POLL = 0x20,
    BFD_FLAG_FINAL = 0x10,
    BFD_FLAG_CONTROL_PLANE_INDEPENDENT = 0x08,
    BFD_FLAG_AUTH_PRESENT = 0x04,
    BFD_FLAG_DEMAND_MODE = 0x02,
    BFD_FLAG_MULTIPOINT = 0x01
};

enum bfd_states {
    BFD_STATE_ADMIN_DOWN = 0,
    BFD_STATE_DOWN = 1,
    BFD_STATE_INIT = 2,
    BFD_STATE_UP = 3
};

enum bfd_diagnostics {
    BFD_DIAG_NONE = 0,
    BFD_DIAG_CTRL_TIMEOUT = 1,
    BFD_DIAG_ECHO_FAIL = 2,
    BFD_DIAG_NEIGH_DOWN = 3,
    BFD_DIAG_FORWARDING_RESET = 4,
    BFD_DIAG_PATH_DOWN = 5,
    BFD_DIAG_CONCAT_PATH_DOWN = 6,
    BFD_DIAG_ADMIN_DOWN = 7,
    BFD_DIAG_REV_CONCAT_PATH_DOWN = 8
};

enum bfd_auth_types {
    BFD_AUTH_NONE = 0,
    BFD_AUTH_PASSWORD = 1,
    BFD_AUTH_KEYED_MD5 = 2,
    BFD_AUTH_METICULOUS_MD5 = 3,
    BFD_AUTH_KEYED_SHA1 = 4,
    BFD_AUTH_METICULOUS_SHA1 = 5,
    BFD_AUTH_INHERIT = 254,     /* a configuration's word only: never the type of a section */
    BFD_AUTH_DEBUG_SEQNUM = 255 /* a sequence number without key or digest, for debugging */
};

/* How much of a transmit period is taken off at random. */
enum bfd_tx_jitter_types {
    BFD_TX_JITTER_NONE = 0,
    BFD_TX_JITTER_75 = 1,   /* the period sent with is 75 to 100 per cent of the configured one */
    BFD_TX_JITTER_75_90 = 2 /* 75 to 90 per cent: RFC 5880 section 6.8.7, detect multiplier 1 */
};

/*
 * Narrow bit fields and arrays without a bound are extensions in one of the two languages or in
 * both. The open arrays are written [0] because a C++ structure that ends in [] cannot be a
 * member of the union below.
 */
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"

/* The mandatory section of a control packet. */
struct bfd_ctrl {
    uint8_t diag : 5; /* bfd_diagnostics */
    uint8_t version : 3;
    uint8_t multipoint : 1;
    uint8_t demand_mode : 1;
    uint8_t auth_present : 1;
    uint8_t control_plane_independent : 1;
    uint8_t final : 1;
    uint8_t poll : 1;
    uint8_t state : 2; /* bfd_states */
    uint8_t detect_multiplier;
    uint8_t len; /* of the whole control packet, authentication section included */
    uint32_t my_discriminator;
    uint32_t your_discriminator; /* 0 while the sender does not know it */
    uint32_t min_tx_interval;    /* microseconds, as the next two */
    uint32_t min_rx_interval;
    uint32_t min_echo_rx_interval;
};

/* What every authentication section but the debugging one begins with. */
struct bfd_auth_common {
    uint8_t type; /* bfd_auth_types */
    uint8_t len;  /* of the whole section */
    uint8_t key_id;
    uint8_t data[0];
};

struct bfd_auth_seq_common {
    uint8_t type;
    uint8_t len;
    uint8_t key_id;
    uint8_t reserved;
    uint32_t seq_num;
    uint8_t data[0];
};

struct bfd_auth_password_full {
    uint8_t type;
    uint8_t len;
    uint8_t key_id;
    uint8_t password[BFD_PASSWORD_MAX_LEN]; /* only len - 3 bytes are sent; no NUL */
};

struct bfd_auth_md5 {
    uint8_t type;
    uint8_t len;
    uint8_t key_id;
    uint8_t reserved;
    uint32_t seq_num;
    uint8_t key_digest[BFD_MD5_DIGEST_LEN];
};

struct bfd_auth_sha1 {
    uint8_t type;
    uint8_t len;
    uint8_t key_id;
    uint8_t reserved;
    uint32_t seq_num;
    uint8_t key_digest[BFD_SHA1_DIGEST_LEN];
};

struct bfd_auth_debug_seqnum {
    uint8_t type;
    uint8_t len;
    uint16_t reserved;
    uint32_t seq_num;
};

union bfd_auth_hdr {
    struct bfd_auth_common common;
    struct bfd_auth_seq_common seq_com;
    struct bfd_auth_password_full password;
    struct bfd_auth_md5 md5;
    struct bfd_auth_sha1 sha1;
    struct bfd_auth_debug_seqnum seq;
};

#pragma GCC diagnostic pop

BFD_ASSERT_SIZE(struct bfd_ctrl, BFD_CTRL_LEN);
BFD_ASSERT_OFFSET(struct bfd_ctrl, detect_multiplier, 2);
BFD_ASSERT_OFFSET(struct bfd_ctrl, len, 3);
BFD_ASSERT_OFFSET(struct bfd_ctrl, my_discriminator, 4);
BFD_ASSERT_OFFSET(struct bfd_ctrl, your_discriminator, 8);
BFD_ASSERT_OFFSET(struct bfd_ctrl, min_tx_interval, 12);
BFD_ASSERT_OFFSET(struct bfd_ctrl, min_rx_interval, 16);
BFD_ASSERT_OFFSET(struct bfd_ctrl, min_echo_rx_interval, 20);

BFD_ASSERT_SIZE(struct bfd_auth_common, BFD_AUTH_COMMON_LEN);
BFD_ASSERT_OFFSET(struct bfd_auth_common, type, 0);
BFD_ASSERT_OFFSET(struct bfd_auth_common, len, 1);
BFD_ASSERT_OFFSET(struct bfd_auth_common, key_id, 2);
BFD_ASSERT_OFFSET(struct bfd_auth_common, data, 3);

BFD_ASSERT_SIZE(struct bfd_auth_seq_common, 8);
BFD_ASSERT_OFFSET(struct bfd_auth_seq_common, key_id, 2);
BFD_ASSERT_OFFSET(struct bfd_auth_seq_common, seq_num, 4);
BFD_ASSERT_OFFSET(struct bfd_auth_seq_common, data, 8);

BFD_ASSERT_SIZE(struct bfd_auth_password_full, BFD_AUTH_PASSWORD_MAX_LEN);
BFD_ASSERT_OFFSET(struct bfd_auth_password_full, key_id, 2);
BFD_ASSERT_OFFSET(struct bfd_auth_password_full, password, 3);

BFD_ASSERT_SIZE(struct bfd_auth_md5, BFD_AUTH_MD5_LEN);
BFD_ASSERT_OFFSET(struct bfd_auth_md5, key_id, 2);
BFD_ASSERT_OFFSET(struct bfd_auth_md5, seq_num, 4);
BFD_ASSERT_OFFSET(struct bfd_auth_md5, key_digest, 8);

BFD_ASSERT_SIZE(struct bfd_auth_sha1, BFD_AUTH_SHA1_LEN);
BFD_ASSERT_OFFSET(struct bfd_auth_sha1, key_id, 2);
BFD_ASSERT_OFFSET(struct bfd_auth_sha1, seq_num, 4);
BFD_ASSERT_OFFSET(struct bfd_auth_sha1, key_digest, 8);

BFD_ASSERT_SIZE(struct bfd_auth_debug_seqnum, BFD_AUTH_DEBUG_SEQNUM_LEN);
BFD_ASSERT_OFFSET(struct bfd_auth_debug_seqnum, reserved, 2);
BFD_ASSERT_OFFSET(struct bfd_auth_debug_seqnum, seq_num, 4);

BFD_ASSERT_SIZE(union bfd_auth_hdr, BFD_AUTH_MAX_LEN);

#endif
