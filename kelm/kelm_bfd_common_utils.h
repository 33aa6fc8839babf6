// SPDX-License-Identifier: GPL-2.0
//
// The BFD protocol library: validation of received control packets, authentication in both
// directions, and the arithmetic of authentication types.
//
// The library keeps no state, allocates nothing, takes no lock and prints nothing: what it has to
// say goes to a trace callback. It needs the C memory functions and, for kelm_auth_process, the
// raw monotonic clock of the platform, and is otherwise at home outside the engine too.
//
// A `bfd_ctrl` pointer means the first byte of a control packet, at any alignment, followed by
// the rest of the packet. Every operation may be called in any context; calls that share a packet,
// a sequence number or a counter are the caller's to serialise.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Bfd.h"
#include "kelm.h"

enum kelm_trace_type {
    KELM_DLOG = 0, // debug
    KELM_VLOG = 1, // verbose
};

extern "C" {

// Takes a diagnostic text, without prefix and line end and valid only during the call, about the
// session with this local discriminator (host order). Never null where an operation asks for one.
using kelm_trace = void (*)(kelm_trace_type type, std::uint32_t discriminator, const char *text);

// The checks of RFC 5880 section 6.8.6 that need no session, on the `len` bytes available from
// `bfd` on. The authentication section of a valid packet lies within the packet's own length,
// and that within `len`.
[[nodiscard]] bool kelm_packet_valid(const bfd_ctrl *bfd, std::size_t len);

// Traces the bytes, at most the first 100 of them, as hexadecimal in groups of four.
void kelm_dump_count_hex_bytes(std::uint32_t disc, const std::uint8_t *p_val, std::uint32_t bytes,
                               kelm_trace trace);

// The kinds of bfd_auth_types: password; MD5; SHA-1; with a sequence number; with one that may
// repeat (the keyed, not the meticulous digest types).
[[nodiscard]] bool kelm_is_simple_auth(std::uint8_t auth_type);
[[nodiscard]] bool kelm_is_md5_auth(std::uint8_t auth_type);
[[nodiscard]] bool kelm_is_sha1_auth(std::uint8_t auth_type);
[[nodiscard]] bool kelm_auth_has_seq_num(std::uint8_t auth_type);
[[nodiscard]] bool kelm_auth_is_keyed(std::uint8_t auth_type);

// Length in bytes of the authentication section of a type, 0 where the type has none. A password's
// length is counted in `p_key`, up to the first NUL, at most 16; the other types do not read it.
[[nodiscard]] std::uint32_t kelm_auth_header_len(std::uint8_t auth_type,
                                                 const kelm_bfd_auth_key *p_key);

// The same with the password taken from a section, at any alignment; 0 if the section's length is
// not that of a password section.
[[nodiscard]] std::uint32_t kelm_auth_header_len_hdr(std::uint8_t auth_type,
                                                     const bfd_auth_hdr *hdr);

// The same with the key slot by value, for callers in other languages.
[[nodiscard]] std::uint32_t kelm_auth_header_len_for_python(std::uint8_t auth_type,
                                                            kelm_bfd_auth_key key);

// Whether a received packet, valid by kelm_packet_valid, may enter its session: by authentication
// type, TTL or hop limit, interface, sequence number and secret.
//   cfg_auth_keys           two slots
//   cfg_seq_num             last accepted sequence number, host order; 0: none yet. Moves on even
//                           if the digest then proves wrong.
//   auth_fail_cnt           counts packets too short for an authentication section, nothing else
//   auth_type_mismatch_cnt  counts packets of another authentication type
//   cfg_multiplier          width of a meticulous type's sequence number window
//   ip                      IPv4 or IPv6 header, at any alignment, or null: no TTL will do
//   ifindex                 interface of arrival
//   received_auth_size_from_pkt_size  bytes received after the mandatory section
// For the digest types the packet's digest field is left holding the digest computed here, which
// differs from the received one exactly if the comparison failed.
[[nodiscard]] bool kelm_auth_valid(const kelm_auth_config *cfg_auth,
                                   const kelm_bfd_auth_key *cfg_auth_keys,
                                   std::uint32_t *cfg_seq_num, std::uint64_t *auth_fail_cnt,
                                   std::uint64_t *auth_type_mismatch_cnt,
                                   std::uint8_t cfg_multiplier, bfd_ctrl *bfd, const void *ip,
                                   std::int32_t ifindex,
                                   std::int32_t received_auth_size_from_pkt_size, kelm_trace trace);

// The last of these checks alone: key slot, sequence number, password or digest. The packet is
// valid by kelm_packet_valid and has an authentication section.
[[nodiscard]] bool kelm_secret_valid(bfd_ctrl *bfd, const kelm_bfd_auth_key *keys,
                                     std::uint8_t cfg_multiplier, std::uint32_t *seq_num,
                                     kelm_trace trace);

// kelm_secret_valid without the sequence number.
[[nodiscard]] bool kelm_bfd_secret_valid(bfd_ctrl *bfd, const kelm_bfd_auth_key *keys,
                                         kelm_trace trace);

// Makes a packet's authentication section ready for its next transmission: writes the sequence
// number and the digest, with the key in the key_digest of `cfg_auth_hdr`. Type, length, key id
// and password are the packet's own and stay. The meticulous and debug types take their sequence
// number from `seq_num` (host order) and advance it by one; the keyed types send the raw clock's
// seconds, which do not decrease. Types without a sequence number do nothing, and so does a packet
// of `packet_len` bytes whose control packet, at `latch_offset`, has no room for the section.
// `session_type` has no influence.
void kelm_auth_process(std::uint8_t *pkt, std::size_t packet_len, std::uint32_t latch_offset,
                       kelm_tx_session_types session_type, std::uint8_t cfg_auth_type,
                       std::uint32_t *seq_num, const bfd_auth_hdr *cfg_auth_hdr, kelm_trace trace);
}
