// SPDX-License-Identifier: GPL-2.0
//
// The BFD protocol library. It owns nothing: packets, keys, sequence numbers and counters are the
// callers'. Packet bytes come from the wire or the agent at any alignment, hence the byte
// positions and loads instead of the fields of bfd_ctrl.
#include "kelm_bfd_common_utils.h"

#include <cstring>

#include "byte_order.h"
#include "md5.h"
#include "platform/clock.h"
#include "sha1.h"
#include "trace_text.h"
#include "wipe.h"

namespace
{

// Positions in a control packet.
constexpr std::size_t flags_at = 1;
constexpr std::size_t multiplier_at = offsetof(bfd_ctrl, detect_multiplier);
constexpr std::size_t len_at = offsetof(bfd_ctrl, len);
constexpr std::size_t my_discriminator_at = offsetof(bfd_ctrl, my_discriminator);
constexpr std::size_t your_discriminator_at = offsetof(bfd_ctrl, your_discriminator);
constexpr std::size_t auth_type_at = BFD_AUTH_OFFSET + offsetof(bfd_auth_common, type);
constexpr std::size_t auth_len_at = BFD_AUTH_OFFSET + offsetof(bfd_auth_common, len);
constexpr std::size_t key_id_at = BFD_AUTH_OFFSET + offsetof(bfd_auth_common, key_id);
constexpr std::size_t password_at = BFD_AUTH_OFFSET + offsetof(bfd_auth_password_full, password);
constexpr std::size_t seq_num_at = BFD_AUTH_OFFSET + offsetof(bfd_auth_sha1, seq_num);
constexpr std::size_t digest_at = BFD_AUTH_OFFSET + offsetof(bfd_auth_sha1, key_digest);

constexpr std::uint8_t min_authenticated_len = BFD_CTRL_LEN + BFD_AUTH_PASSWORD_MIN_LEN;

const std::uint8_t *bytes_of(const void *object)
{
    return static_cast<const std::uint8_t *>(object);
}

bool auth_present(const std::uint8_t *packet)
{
    return (packet[flags_at] & BFD_FLAG_AUTH_PRESENT) != 0;
}

bool auth_section_len_valid(std::uint8_t type, std::uint8_t len)
{
    if (kelm_is_simple_auth(type))
        return len >= BFD_AUTH_PASSWORD_MIN_LEN && len <= BFD_AUTH_PASSWORD_MAX_LEN;
    return len != 0 && len == kelm_auth_header_len(type, nullptr);
}

bool packet_len_valid(const std::uint8_t *packet)
{
    if (!auth_present(packet))
        return packet[len_at] >= BFD_CTRL_LEN;
    return packet[len_at] >= min_authenticated_len &&
           auth_section_len_valid(packet[auth_type_at], packet[auth_len_at]) &&
           packet[len_at] >= BFD_AUTH_OFFSET + packet[auth_len_at];
}

std::size_t digest_len(std::uint8_t auth_type)
{
    if (kelm_is_md5_auth(auth_type))
        return BFD_MD5_DIGEST_LEN;
    return kelm_is_sha1_auth(auth_type) ? BFD_SHA1_DIGEST_LEN : 0;
}

void sha1_cksum(const void *data, std::size_t datalen, std::uint8_t *digest)
{
    kelm_sha1_ctxt ctxt;
    kelm_sha1_init(&ctxt);
    kelm_sha1_loop(&ctxt, data, datalen);
    kelm_sha1_result(&ctxt, digest);
    wipe(&ctxt, sizeof ctxt);
}

// RFC 5880 sections 6.7.3 and 6.7.4: the digest covers the packet with the key in its place.
// Types without a digest are left alone.
void write_digest(std::uint8_t auth_type, std::uint8_t *packet, std::size_t len,
                  const std::uint8_t *key)
{
    std::uint8_t *digest = packet + digest_at;
    std::memcpy(digest, key, digest_len(auth_type));
    if (kelm_is_md5_auth(auth_type))
        kelm_md5_cksum(packet, len, len, digest, nullptr);
    else if (kelm_is_sha1_auth(auth_type))
        sha1_cksum(packet, len, digest);
}

// In a time that does not tell how many of the bytes are equal.
bool are_equal(const std::uint8_t *a, const std::uint8_t *b, std::size_t size)
{
    std::uint8_t difference = 0;
    for (std::size_t i = 0; i < size; ++i)
        difference |= a[i] ^ b[i];
    return difference == 0;
}

bool digest_valid(std::uint8_t auth_type, std::uint8_t *packet, const std::uint8_t *key)
{
    std::uint8_t received[BFD_SHA1_DIGEST_LEN];
    const std::size_t size = digest_len(auth_type);
    std::memcpy(received, packet + digest_at, size);
    write_digest(auth_type, packet, packet[len_at], key);
    return are_equal(received, packet + digest_at, size);
}

// The meticulous window is circular: past 4294967295 a peer's numbers go on at 0.
bool check_and_set_auth_seq_num(const std::uint8_t *packet, std::uint32_t *seq_num,
                                std::uint8_t cfg_multiplier, kelm_trace trace)
{
    const std::uint32_t disc = load_be32(packet + your_discriminator_at);
    const std::uint32_t received = load_be32(packet + seq_num_at);
    const std::uint32_t last = *seq_num;
    if (last == 0) {
        *seq_num = received;
        return true;
    }
    if (kelm_auth_is_keyed(packet[auth_type_at])) {
        if (received < last) {
            trace_text<200> text;
            text << "seqnum failed received " << received << " expected >= " << last;
            trace(KELM_DLOG, disc, text.c_str());
            return false;
        }
    } else {
        const std::uint32_t ahead = received - last;
        if (ahead == 0 || ahead > cfg_multiplier) {
            trace_text<200> text;
            text << "seqnum failed received " << received << " expected > " << last
                 << " and <= " << last + cfg_multiplier;
            trace(KELM_DLOG, disc, text.c_str());
            return false;
        }
    }
    *seq_num = received;
    return true;
}

const kelm_bfd_auth_key *find_key(const std::uint8_t *packet, const kelm_bfd_auth_key *keys,
                                  kelm_trace trace)
{
    for (std::size_t slot = 0; slot < KELM_NUM_AUTH_KEYS; ++slot) {
        if (keys[slot].key_valid != 0 && keys[slot].key_id == packet[key_id_at])
            return &keys[slot];
    }
    trace_text<200> text;
    text << "key id not found " << packet[key_id_at];
    trace(KELM_DLOG, load_be32(packet + your_discriminator_at), text.c_str());
    return nullptr;
}

bool password_valid(const std::uint8_t *packet, const kelm_bfd_auth_key *key, kelm_trace trace)
{
    const std::uint32_t expected = kelm_auth_header_len(BFD_AUTH_PASSWORD, key);
    const std::uint8_t received = packet[auth_len_at];
    if (received != expected) {
        trace_text<200> text;
        text << "Rx: authFailure due to auth header length mismatch; expected; " << expected
             << "; received " << received;
        trace(KELM_DLOG, load_be32(packet + your_discriminator_at), text.c_str());
        return false;
    }
    return are_equal(packet + password_at, key->key, expected - BFD_AUTH_COMMON_LEN);
}

// A null `seq_num` leaves the sequence number out of it.
bool secret_valid(std::uint8_t *packet, const kelm_bfd_auth_key *keys, std::uint8_t cfg_multiplier,
                  std::uint32_t *seq_num, kelm_trace trace)
{
    const kelm_bfd_auth_key *key = find_key(packet, keys, trace);
    if (key == nullptr)
        return false;
    const std::uint8_t auth_type = packet[auth_type_at];
    if (kelm_is_simple_auth(auth_type))
        return password_valid(packet, key, trace);
    if (digest_len(auth_type) == 0)
        return false;
    if (seq_num != nullptr && !check_and_set_auth_seq_num(packet, seq_num, cfg_multiplier, trace))
        return false;
    return digest_valid(auth_type, packet, key->key);
}

// 0 without an IP header, which no configuration accepts.
std::uint8_t traced_ttl(const std::uint8_t *ip, std::uint32_t disc, kelm_trace trace)
{
    if (ip == nullptr)
        return 0;
    const bool is_ipv4 = ip[0] >> 4 == 4;
    const std::uint8_t ttl = is_ipv4 ? ip[8] : ip[7];
    trace_text<100> text;
    text << (is_ipv4 ? "ip ttl " : "ipv6 ttl ") << ttl;
    trace(KELM_VLOG, disc, text.c_str());
    return ttl;
}

bool ttl_accepted(const kelm_auth_config *cfg_auth, const void *ip, std::uint32_t disc,
                  kelm_trace trace)
{
    if ((cfg_auth->flags & (KELM_AUTH_TTL_255 | KELM_AUTH_TTL_254)) == 0)
        return true;
    const std::uint8_t ttl = traced_ttl(bytes_of(ip), disc, trace);
    if ((cfg_auth->flags & KELM_AUTH_TTL_255) != 0 && ttl != 255)
        return false;
    return (cfg_auth->flags & KELM_AUTH_TTL_254) == 0 || ttl == 254;
}

bool interface_accepted(const kelm_auth_config *cfg_auth, std::int32_t ifindex, std::uint32_t disc,
                        kelm_trace trace)
{
    const auto arrived_on = static_cast<std::uint32_t>(ifindex);
    if (cfg_auth->ifindex == 0 || cfg_auth->ifindex == arrived_on)
        return true;
    trace_text<80> text;
    text << "auth ifindex " << cfg_auth->ifindex << " skb ifindex " << arrived_on;
    trace(KELM_DLOG, disc, text.c_str());
    return false;
}

bool auth_type_accepted(const kelm_auth_config *cfg_auth, const std::uint8_t *packet,
                        std::uint64_t *auth_fail_cnt, std::uint64_t *auth_type_mismatch_cnt,
                        kelm_trace trace)
{
    // The debug type is sent without the A bit: its section is an unchecked trailer.
    if (!auth_present(packet))
        return cfg_auth->type == BFD_AUTH_NONE || cfg_auth->type == BFD_AUTH_DEBUG_SEQNUM;
    if (packet[len_at] < min_authenticated_len) {
        trace(KELM_DLOG, load_be32(packet + your_discriminator_at),
              "Rx: authFailure due to auth set and the presence of a short auth header");
        ++*auth_fail_cnt;
        return false;
    }
    if (packet[auth_type_at] != cfg_auth->type) {
        ++*auth_type_mismatch_cnt;
        return false;
    }
    return true;
}

// The sequence number for the next transmission, host order.
std::uint32_t next_seq_num(std::uint8_t auth_type, std::uint32_t *seq_num)
{
    if (!kelm_auth_is_keyed(auth_type))
        return (*seq_num)++;
    timespec64 now;
    ktime_get_raw_ts64(&now);
    return static_cast<std::uint32_t>(now.tv_sec);
}

} // namespace

bool kelm_packet_valid(const bfd_ctrl *bfd, std::size_t len)
{
    const std::uint8_t *packet = bytes_of(bfd);
    if (len < BFD_CTRL_LEN)
        return false;
    if (packet[0] >> BFD_VERSION_SHIFT != BFD_VERSION)
        return false;
    if (packet[len_at] > len || !packet_len_valid(packet))
        return false;
    if (packet[multiplier_at] == 0)
        return false;
    if ((packet[flags_at] & BFD_FLAG_MULTIPOINT) != 0)
        return false;
    if (load_be32(packet + my_discriminator_at) == 0)
        return false;
    if (load_be32(packet + your_discriminator_at) != 0)
        return true;
    const int state = packet[flags_at] >> BFD_STATE_SHIFT;
    return state == BFD_STATE_ADMIN_DOWN || state == BFD_STATE_DOWN;
}

void kelm_dump_count_hex_bytes(std::uint32_t disc, const std::uint8_t *p_val, std::uint32_t bytes,
                               kelm_trace trace)
{
    const std::uint32_t count = bytes < 100 ? bytes : 100;
    trace_text<226> text;
    for (std::uint32_t i = 0; i < count; ++i) {
        if (i != 0 && i % 4 == 0)
            text << " ";
        text << hex_byte{p_val[i]};
    }
    trace(KELM_DLOG, disc, text.c_str());
}

bool kelm_is_simple_auth(std::uint8_t auth_type)
{
    return auth_type == BFD_AUTH_PASSWORD;
}

bool kelm_is_md5_auth(std::uint8_t auth_type)
{
    return auth_type == BFD_AUTH_KEYED_MD5 || auth_type == BFD_AUTH_METICULOUS_MD5;
}

bool kelm_is_sha1_auth(std::uint8_t auth_type)
{
    return auth_type == BFD_AUTH_KEYED_SHA1 || auth_type == BFD_AUTH_METICULOUS_SHA1;
}

bool kelm_auth_has_seq_num(std::uint8_t auth_type)
{
    return kelm_is_md5_auth(auth_type) || kelm_is_sha1_auth(auth_type) ||
           auth_type == BFD_AUTH_DEBUG_SEQNUM;
}

bool kelm_auth_is_keyed(std::uint8_t auth_type)
{
    return auth_type == BFD_AUTH_KEYED_MD5 || auth_type == BFD_AUTH_KEYED_SHA1;
}

std::uint32_t kelm_auth_header_len(std::uint8_t auth_type, const kelm_bfd_auth_key *p_key)
{
    switch (auth_type) {
    case BFD_AUTH_PASSWORD: {
        std::uint32_t password_len = 0;
        while (password_len < BFD_PASSWORD_MAX_LEN && p_key->key[password_len] != 0)
            ++password_len;
        return BFD_AUTH_COMMON_LEN + password_len;
    }
    case BFD_AUTH_KEYED_MD5:
    case BFD_AUTH_METICULOUS_MD5:
        return BFD_AUTH_MD5_LEN;
    case BFD_AUTH_KEYED_SHA1:
    case BFD_AUTH_METICULOUS_SHA1:
        return BFD_AUTH_SHA1_LEN;
    case BFD_AUTH_DEBUG_SEQNUM:
        return BFD_AUTH_DEBUG_SEQNUM_LEN;
    default:
        return 0;
    }
}

std::uint32_t kelm_auth_header_len_hdr(std::uint8_t auth_type, const bfd_auth_hdr *hdr)
{
    kelm_bfd_auth_key key = {};
    if (kelm_is_simple_auth(auth_type)) {
        const std::uint8_t *section = bytes_of(hdr);
        const std::uint8_t len = section[offsetof(bfd_auth_common, len)];
        if (!auth_section_len_valid(auth_type, len))
            return 0;
        std::memcpy(key.key, section + offsetof(bfd_auth_password_full, password),
                    len - BFD_AUTH_COMMON_LEN);
    }
    const std::uint32_t len = kelm_auth_header_len(auth_type, &key);
    wipe(&key, sizeof key);
    return len;
}

std::uint32_t kelm_auth_header_len_for_python(std::uint8_t auth_type, kelm_bfd_auth_key key)
{
    return kelm_auth_header_len(auth_type, &key);
}

bool kelm_auth_valid(const kelm_auth_config *cfg_auth, const kelm_bfd_auth_key *cfg_auth_keys,
                     std::uint32_t *cfg_seq_num, std::uint64_t *auth_fail_cnt,
                     std::uint64_t *auth_type_mismatch_cnt, std::uint8_t cfg_multiplier,
                     bfd_ctrl *bfd, const void *ip, std::int32_t ifindex,
                     std::int32_t received_auth_size_from_pkt_size, kelm_trace trace)
{
    auto *packet = reinterpret_cast<std::uint8_t *>(bfd);
    const std::uint32_t disc = load_be32(packet + your_discriminator_at);
    if (!auth_type_accepted(cfg_auth, packet, auth_fail_cnt, auth_type_mismatch_cnt, trace) ||
        !ttl_accepted(cfg_auth, ip, disc, trace) ||
        !interface_accepted(cfg_auth, ifindex, disc, trace))
        return false;

    // With or without the A bit: what follows the mandatory section may be a debug trailer.
    if (received_auth_size_from_pkt_size >= BFD_AUTH_DEBUG_SEQNUM_LEN &&
        kelm_auth_has_seq_num(packet[auth_type_at])) {
        trace_text<100> text;
        text << "Rx seqnum " << load_be32(packet + seq_num_at);
        trace(KELM_DLOG, disc, text.c_str());
    }
    return !auth_present(packet) ||
           secret_valid(packet, cfg_auth_keys, cfg_multiplier, cfg_seq_num, trace);
}

bool kelm_secret_valid(bfd_ctrl *bfd, const kelm_bfd_auth_key *keys, std::uint8_t cfg_multiplier,
                       std::uint32_t *seq_num, kelm_trace trace)
{
    return secret_valid(reinterpret_cast<std::uint8_t *>(bfd), keys, cfg_multiplier, seq_num,
                        trace);
}

bool kelm_bfd_secret_valid(bfd_ctrl *bfd, const kelm_bfd_auth_key *keys, kelm_trace trace)
{
    return secret_valid(reinterpret_cast<std::uint8_t *>(bfd), keys, 0, nullptr, trace);
}

void kelm_auth_process(std::uint8_t *pkt, std::size_t packet_len, std::uint32_t latch_offset,
                       kelm_tx_session_types /*session_type*/, std::uint8_t cfg_auth_type,
                       std::uint32_t *seq_num, const bfd_auth_hdr *cfg_auth_hdr, kelm_trace trace)
{
    if (!kelm_auth_has_seq_num(cfg_auth_type) || latch_offset > packet_len)
        return;
    std::uint8_t *packet = pkt + latch_offset;
    const std::size_t available = packet_len - latch_offset;
    if (available < BFD_AUTH_OFFSET + kelm_auth_header_len(cfg_auth_type, nullptr))
        return;

    const std::uint32_t number = next_seq_num(cfg_auth_type, seq_num);
    store_be32(packet + seq_num_at, number);

    // The length field is the agent's and need not agree with the bytes that are there.
    const std::size_t len = packet[len_at] < available ? packet[len_at] : available;
    write_digest(cfg_auth_type, packet, len,
                 bytes_of(cfg_auth_hdr) + offsetof(bfd_auth_sha1, key_digest));

    trace_text<25> text;
    text << "Tx seqnum " << number;
    trace(KELM_DLOG, load_be32(packet + my_discriminator_at), text.c_str());
}
