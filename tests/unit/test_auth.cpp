// SPDX-License-Identifier: GPL-2.0
//
// Authentication: the arithmetic of types, who is admitted on receive, what transmission writes,
// and that each end understands the other.
#include "protocol_fixture.h"

#include "md5.h"
#include "platform/clock.h"
#include "sha1.h"

#include <array>
#include <cstring>

namespace
{

constexpr std::uint8_t digest_types[] = {BFD_AUTH_KEYED_MD5, BFD_AUTH_METICULOUS_MD5,
                                         BFD_AUTH_KEYED_SHA1, BFD_AUTH_METICULOUS_SHA1};

const std::string secret = "0123456789abcdefghij"; // 20 bytes: MD5 takes the first 16

kelm_bfd_auth_key make_key(std::uint8_t key_id, const std::string &key)
{
    kelm_bfd_auth_key slot = {};
    std::memcpy(slot.key, key.data(), key.size());
    slot.key_id = key_id;
    slot.key_valid = 1;
    return slot;
}

// Puts the digest in, by the rule of RFC 5880 sections 6.7.3 and 6.7.4.
void sign(bytes &packet, const std::string &key)
{
    std::uint8_t *digest = &packet[32];
    if (kelm_is_md5_auth(packet[24])) {
        std::memcpy(digest, key.data(), 16);
        kelm_md5_cksum(packet.data(), packet.size(), packet.size(), digest, nullptr);
    } else {
        std::memcpy(digest, key.data(), 20);
        kelm_sha1_ctxt ctxt;
        kelm_sha1_init(&ctxt);
        kelm_sha1_loop(&ctxt, packet.data(), packet.size());
        kelm_sha1_result(&ctxt, digest);
    }
}

bytes make_signed(std::uint8_t type, std::uint8_t key_id, std::uint32_t seq_num)
{
    bytes packet = make_packet(make_seq_section(type, key_id, seq_num));
    sign(packet, secret);
    return packet;
}

bytes make_password_packet(std::uint8_t key_id, const std::string &password)
{
    bytes section = {BFD_AUTH_PASSWORD, static_cast<std::uint8_t>(3 + password.size()), key_id};
    section.insert(section.end(), password.begin(), password.end());
    return make_packet(section);
}

// The receiving session.
struct receiver {
    kelm_auth_config config = {};
    std::array<kelm_bfd_auth_key, 2> keys = {make_key(5, secret), kelm_bfd_auth_key{}};
    std::uint32_t seq_num = 0;
    std::uint64_t auth_fail = 0;
    std::uint64_t type_mismatch = 0;
    std::uint8_t multiplier = 3;
    const void *ip = nullptr;
    std::int32_t ifindex = 2;
    bytes packet_after; // as the check left it

    explicit receiver(std::uint8_t type = BFD_AUTH_NONE) { config.type = type; }

    bool admits(const bytes &packet)
    {
        exact_copy received(packet);
        const bool admitted = kelm_auth_valid(
            &config, keys.data(), &seq_num, &auth_fail, &type_mismatch, multiplier, received.ctrl(),
            ip, ifindex, static_cast<std::int32_t>(packet.size()) - 24, remember);
        packet_after = received.contents();
        return admitted;
    }
};

std::vector<trace_line> debug_line(const std::string &text)
{
    return {{KELM_DLOG, your_disc, text}};
}

class auth : public testing::Test
{
  protected:
    void SetUp() override { take_traced(); }
};

using auth_on_receive = auth;
using auth_on_transmit = auth;
using auth_types = auth;

// Types

TEST_F(auth_types, have_their_kinds_and_section_lengths)
{
    const struct {
        std::uint8_t type;
        bool simple, md5, sha1, seq_num, keyed;
        std::uint32_t len;
    } rows[] = {
        {1, true, false, false, false, false, 6}, {2, false, true, false, true, true, 24},
        {3, false, true, false, true, false, 24}, {4, false, false, true, true, true, 28},
        {5, false, false, true, true, false, 28}, {255, false, false, false, true, false, 8},
    };
    const kelm_bfd_auth_key key = make_key(5, "abc");
    for (unsigned type = 0; type < 256; type++) {
        auto row = *std::begin(rows);
        row = {static_cast<std::uint8_t>(type), false, false, false, false, false, 0};
        for (const auto &r : rows)
            row = r.type == type ? r : row;
        EXPECT_EQ(kelm_is_simple_auth(row.type), row.simple) << type;
        EXPECT_EQ(kelm_is_md5_auth(row.type), row.md5) << type;
        EXPECT_EQ(kelm_is_sha1_auth(row.type), row.sha1) << type;
        EXPECT_EQ(kelm_auth_has_seq_num(row.type), row.seq_num) << type;
        EXPECT_EQ(kelm_auth_is_keyed(row.type), row.keyed) << type;
        EXPECT_EQ(kelm_auth_header_len(row.type, &key), row.len) << type;
        EXPECT_EQ(kelm_auth_header_len_for_python(row.type, key), row.len) << type;
    }
}

TEST_F(auth_types, count_a_password_up_to_its_nul_or_16_bytes)
{
    for (std::size_t len = 0; len <= 20; len++) {
        const kelm_bfd_auth_key key = make_key(5, std::string(len, 'x'));
        EXPECT_EQ(kelm_auth_header_len(BFD_AUTH_PASSWORD, &key),
                  3 + std::min<std::size_t>(len, 16));
    }
    const kelm_bfd_auth_key key = make_key(5, std::string("ab\0cd", 5));
    EXPECT_EQ(kelm_auth_header_len(BFD_AUTH_PASSWORD, &key), 5u);
}

TEST_F(auth_types, count_the_password_of_a_section)
{
    for (unsigned len = 0; len < 256; len++) {
        bytes section(28, 'x'); // behind the password, bytes that are not its
        section[1] = static_cast<std::uint8_t>(len);
        exact_copy copy(section);
        const auto *hdr = reinterpret_cast<const bfd_auth_hdr *>(copy.data());
        const std::uint32_t expected = len >= 4 && len <= 19 ? len : 0;
        EXPECT_EQ(kelm_auth_header_len_hdr(BFD_AUTH_PASSWORD, hdr), expected) << len;
        EXPECT_EQ(kelm_auth_header_len_hdr(BFD_AUTH_KEYED_SHA1, hdr), 28u) << len;
        EXPECT_EQ(kelm_auth_header_len_hdr(BFD_AUTH_INHERIT, hdr), 0u) << len;
    }
    bytes section = {1, 10, 5, 'a', 'b', 0, 'c', 'd', 'e', 'f'};
    section.resize(28);
    EXPECT_EQ(kelm_auth_header_len_hdr(BFD_AUTH_PASSWORD,
                                       reinterpret_cast<const bfd_auth_hdr *>(section.data())),
              5u);
    section[3] = 0; // an empty password
    EXPECT_EQ(kelm_auth_header_len_hdr(BFD_AUTH_PASSWORD,
                                       reinterpret_cast<const bfd_auth_hdr *>(section.data())),
              3u);
}

// Receive: admission

TEST_F(auth_on_receive, packet_without_section_is_for_sessions_without_or_debug)
{
    for (unsigned type = 0; type < 256; type++) {
        receiver session(static_cast<std::uint8_t>(type));
        EXPECT_EQ(session.admits(make_packet()), type == 0 || type == 255) << type;
        EXPECT_EQ(session.auth_fail + session.type_mismatch, 0u) << type;
        EXPECT_EQ(take_traced(), std::vector<trace_line>{}) << type;
    }
}

TEST_F(auth_on_receive, short_section_counts_as_auth_failure)
{
    bytes packet = make_packet({BFD_AUTH_KEYED_MD5, 2});
    ASSERT_EQ(packet[3], 26);
    receiver session(BFD_AUTH_KEYED_MD5);
    EXPECT_FALSE(session.admits(packet));
    EXPECT_EQ(session.auth_fail, 1u);
    EXPECT_EQ(session.type_mismatch, 0u);
    EXPECT_EQ(
        take_traced(),
        debug_line("Rx: authFailure due to auth set and the presence of a short auth header"));
}

TEST_F(auth_on_receive, other_type_counts_as_mismatch)
{
    for (const std::uint8_t configured : bytes{0, 1, 2, 3, 5, 254, 255}) {
        receiver session(configured);
        EXPECT_FALSE(session.admits(make_signed(BFD_AUTH_KEYED_SHA1, 5, 1)));
        EXPECT_EQ(session.type_mismatch, 1u);
        EXPECT_EQ(session.auth_fail, 0u);
        EXPECT_EQ(session.seq_num, 0u);
        EXPECT_EQ(take_traced(), std::vector<trace_line>{});
    }
}

TEST_F(auth_on_receive, ttl_or_hop_limit_must_be_the_configured_one)
{
    enum ip_version { none, v4, v6 };
    const struct {
        std::uint8_t flags;
        ip_version version;
        std::uint8_t ttl;
        bool admitted;
    } rows[] = {
        {0x00, none, 0, true},  {0x00, v4, 1, true},    {0xfc, v4, 1, true},
        {0x01, v4, 255, true},  {0x01, v4, 254, false}, {0x01, v4, 0, false},
        {0x01, v6, 255, true},  {0x01, v6, 254, false}, {0x02, v4, 254, true},
        {0x02, v4, 255, false}, {0x02, v6, 254, true},  {0x02, v6, 255, false},
        {0x03, v4, 255, false}, {0x03, v6, 254, false}, {0x01, none, 0, false},
        {0x02, none, 0, false}, {0x81, v6, 255, true},
    };
    for (const auto &row : rows) {
        bytes header(row.version == v4 ? 20 : 40);
        header[0] = row.version == v4 ? 0x45 : 0x60;
        header[row.version == v4 ? 8 : 7] = row.ttl;
        exact_copy ip(header);
        receiver session;
        session.config.flags = row.flags;
        session.ip = row.version == none ? nullptr : ip.data();
        EXPECT_EQ(session.admits(make_packet()), row.admitted) << +row.flags << " " << +row.ttl;

        std::vector<trace_line> expected;
        if ((row.flags & 3) != 0 && row.version != none)
            expected = {{KELM_VLOG, your_disc,
                         (row.version == v4 ? "ip ttl " : "ipv6 ttl ") + std::to_string(row.ttl)}};
        EXPECT_EQ(take_traced(), expected);
        EXPECT_EQ(session.auth_fail + session.type_mismatch, 0u);
    }
}

TEST_F(auth_on_receive, interface_must_be_the_configured_one)
{
    receiver session;
    session.config.ifindex = 7;
    session.ifindex = 7;
    EXPECT_TRUE(session.admits(make_packet()));
    EXPECT_EQ(take_traced(), std::vector<trace_line>{});
    session.ifindex = 8;
    EXPECT_FALSE(session.admits(make_packet()));
    EXPECT_EQ(take_traced(), debug_line("auth ifindex 7 skb ifindex 8"));
    session.config.ifindex = 4294967295;
    session.ifindex = -2;
    EXPECT_FALSE(session.admits(make_packet()));
    EXPECT_EQ(take_traced(), debug_line("auth ifindex 4294967295 skb ifindex 4294967294"));
}

TEST_F(auth_on_receive, traces_the_sequence_number_of_any_trailer_that_has_one)
{
    const struct {
        std::uint8_t type;
        std::size_t trailer;
        bool traced;
    } rows[] = {{255, 8, true}, {255, 7, false}, {255, 0, false}, {2, 8, true},  {3, 28, true},
                {4, 8, true},   {5, 8, true},    {0, 8, false},   {1, 8, false}, {254, 8, false}};
    for (const auto &row : rows) {
        bytes packet = make_packet();
        packet.resize(24 + row.trailer); // behind the packet's own length: no A bit
        if (row.trailer != 0)
            packet[24] = row.type;
        if (row.trailer >= 8)
            store_be32(&packet[28], 4000000000);
        receiver session(BFD_AUTH_DEBUG_SEQNUM);
        EXPECT_TRUE(session.admits(packet));
        EXPECT_EQ(take_traced(),
                  row.traced ? debug_line("Rx seqnum 4000000000") : std::vector<trace_line>{})
            << +row.type << " " << row.trailer;
    }
}

// Receive: keys and passwords

TEST_F(auth_on_receive, key_is_found_by_its_id_and_the_first_slot_wins)
{
    const kelm_bfd_auth_key good_5 = make_key(5, secret), good_7 = make_key(7, secret);
    const kelm_bfd_auth_key bad_5 = make_key(5, "wrong"), bad_7 = make_key(7, "wrong");
    kelm_bfd_auth_key invalid_5 = bad_5;
    invalid_5.key_valid = 0;
    kelm_bfd_auth_key other_truth_5 = good_5;
    other_truth_5.key_valid = 0x80;

    const struct {
        std::array<kelm_bfd_auth_key, 2> keys;
        std::uint8_t key_id;
        bool admitted, found;
    } rows[] = {
        {{good_5, bad_7}, 5, true, true},       {{bad_5, good_7}, 7, true, true},
        {{good_5, bad_5}, 5, true, true},       {{bad_5, good_5}, 5, false, true},
        {{invalid_5, good_5}, 5, true, true},   {{good_5, good_7}, 9, false, false},
        {{invalid_5, good_7}, 5, false, false}, {{other_truth_5, bad_7}, 5, true, true},
    };
    for (const auto &row : rows) {
        receiver session(BFD_AUTH_METICULOUS_SHA1);
        session.keys = row.keys;
        EXPECT_EQ(session.admits(make_signed(BFD_AUTH_METICULOUS_SHA1, row.key_id, 1)),
                  row.admitted);
        std::vector<trace_line> expected = debug_line("Rx seqnum 1");
        if (!row.found)
            expected.push_back(
                {KELM_DLOG, your_disc, "key id not found " + std::to_string(row.key_id)});
        EXPECT_EQ(take_traced(), expected);
        EXPECT_EQ(session.seq_num, row.found ? 1u : 0u);
    }
}

TEST_F(auth_on_receive, password_must_agree_in_length_and_bytes)
{
    const std::string mismatch = "Rx: authFailure due to auth header length mismatch; expected; ";
    const struct {
        std::string configured, sent;
        bool admitted;
        std::string text;
    } rows[] = {
        {"abc", "abc", true, ""},
        {"a", "a", true, ""},
        {"0123456789abcdef", "0123456789abcdef", true, ""},
        {"0123456789abcdefXYZ", "0123456789abcdef", true, ""}, // only 16 bytes are a password
        {"abc", "abd", false, ""},
        {"abc", "Abc", false, ""},
        {"0123456789abcdef", "0123456789abcdeF", false, ""},
        {"abc", "abcd", false, mismatch + "6; received 7"},
        {"abcd", "abc", false, mismatch + "7; received 6"},
        {"", "a", false, mismatch + "3; received 4"},
        {"abc", std::string("abc\0", 4), false, mismatch + "6; received 7"},
    };
    for (const auto &row : rows) {
        receiver session(BFD_AUTH_PASSWORD);
        session.keys[0] = make_key(5, row.configured);
        const bytes packet = make_password_packet(5, row.sent);
        EXPECT_EQ(session.admits(packet), row.admitted) << row.configured << " " << row.sent;
        EXPECT_EQ(take_traced(),
                  row.text.empty() ? std::vector<trace_line>{} : debug_line(row.text));
        EXPECT_EQ(session.packet_after, packet);
        EXPECT_EQ(session.seq_num, 0u);
    }
}

TEST_F(auth_on_receive, debug_section_with_the_a_bit_has_no_secret_to_check)
{
    receiver session(BFD_AUTH_DEBUG_SEQNUM);
    EXPECT_FALSE(session.admits(make_packet(make_seq_section(BFD_AUTH_DEBUG_SEQNUM, 5, 9))));
    EXPECT_EQ(take_traced(), debug_line("Rx seqnum 9"));
}

// Receive: sequence numbers

TEST_F(auth_on_receive, sequence_number_must_lie_in_the_window_of_its_type)
{
    constexpr std::uint32_t max = 4294967295;
    constexpr std::uint8_t keyed = BFD_AUTH_KEYED_MD5, meticulous = BFD_AUTH_METICULOUS_MD5;
    const struct {
        std::uint8_t type, multiplier;
        std::uint32_t last, received;
        const char *failure; // null: admitted
    } rows[] = {
        {keyed, 3, 0, 0, nullptr},
        {keyed, 3, 0, 12345, nullptr},
        {keyed, 3, 100, 100, nullptr},
        {keyed, 3, 100, 900, nullptr},
        {keyed, 3, 100, max, nullptr},
        {keyed, 3, 100, 99, "seqnum failed received 99 expected >= 100"},
        {keyed, 3, max, max, nullptr},
        {keyed, 3, max, 0, "seqnum failed received 0 expected >= 4294967295"},
        {meticulous, 3, 0, 0, nullptr},
        {meticulous, 3, 0, max, nullptr},
        {meticulous, 3, 100, 101, nullptr},
        {meticulous, 3, 100, 103, nullptr},
        {meticulous, 3, 100, 100, "seqnum failed received 100 expected > 100 and <= 103"},
        {meticulous, 3, 100, 104, "seqnum failed received 104 expected > 100 and <= 103"},
        {meticulous, 3, 100, 99, "seqnum failed received 99 expected > 100 and <= 103"},
        {meticulous, 3, 100, 0, "seqnum failed received 0 expected > 100 and <= 103"},
        {meticulous, 1, 100, 101, nullptr},
        {meticulous, 1, 100, 102, "seqnum failed received 102 expected > 100 and <= 101"},
        {meticulous, 255, 100, 355, nullptr},
        {meticulous, 255, 100, 356, "seqnum failed received 356 expected > 100 and <= 355"},
        {meticulous, 0, 100, 101, "seqnum failed received 101 expected > 100 and <= 100"},
        // Across the end of the number space.
        {meticulous, 3, max - 1, max, nullptr},
        {meticulous, 3, max - 1, 0, nullptr},
        {meticulous, 3, max - 1, 1, nullptr},
        {meticulous, 3, max - 1, 2, "seqnum failed received 2 expected > 4294967294 and <= 1"},
        {meticulous, 3, max, 0, nullptr},
        {meticulous, 3, max, 2, nullptr},
        {meticulous, 3, max, max,
         "seqnum failed received 4294967295 expected > 4294967295 and <= 2"},
        {meticulous, 3, 1, max, "seqnum failed received 4294967295 expected > 1 and <= 4"},
    };
    for (const auto &row : rows)
        for (const int sha1 : {0, 2}) { // the SHA-1 type of the same rule
            const auto type = static_cast<std::uint8_t>(row.type + sha1);
            receiver session(type);
            session.seq_num = row.last;
            session.multiplier = row.multiplier;
            const bool admitted = session.admits(make_signed(type, 5, row.received));
            EXPECT_EQ(admitted, row.failure == nullptr)
                << +type << ": " << row.received << " after " << row.last;
            EXPECT_EQ(session.seq_num, admitted ? row.received : row.last);

            std::vector<trace_line> expected =
                debug_line("Rx seqnum " + std::to_string(row.received));
            if (row.failure != nullptr)
                expected.push_back({KELM_DLOG, your_disc, row.failure});
            EXPECT_EQ(take_traced(), expected);
        }
}

TEST_F(auth_on_receive, first_sequence_number_of_0_leaves_the_session_at_its_first)
{
    receiver session(BFD_AUTH_METICULOUS_MD5);
    EXPECT_TRUE(session.admits(make_signed(BFD_AUTH_METICULOUS_MD5, 5, 0)));
    EXPECT_TRUE(session.admits(make_signed(BFD_AUTH_METICULOUS_MD5, 5, 5000)));
    EXPECT_FALSE(session.admits(make_signed(BFD_AUTH_METICULOUS_MD5, 5, 5000)));
}

TEST_F(auth_on_receive, secret_can_be_checked_without_the_sequence_number)
{
    const receiver session;
    for (const std::uint8_t type : digest_types) {
        std::uint32_t last = 100;
        exact_copy old(make_signed(type, 5, 7));
        EXPECT_FALSE(kelm_secret_valid(old.ctrl(), session.keys.data(), 3, &last, remember));
        EXPECT_TRUE(kelm_bfd_secret_valid(old.ctrl(), session.keys.data(), remember));
        exact_copy next(make_signed(type, 5, 101));
        EXPECT_TRUE(kelm_secret_valid(next.ctrl(), session.keys.data(), 3, &last, remember));
        EXPECT_EQ(last, 101u);
    }
}

// Receive: digests

TEST_F(auth_on_receive, wrong_digest_is_replaced_and_has_moved_the_sequence_number)
{
    for (const std::uint8_t type : digest_types) {
        const bytes good = make_signed(type, 5, 101);
        bytes bad = good;
        bad.back() ^= 1;
        receiver session(type);
        session.seq_num = 100;
        EXPECT_FALSE(session.admits(bad));
        EXPECT_EQ(session.packet_after, good);
        EXPECT_EQ(session.seq_num, 101u);
        EXPECT_EQ(session.auth_fail + session.type_mismatch, 0u);
    }
}

TEST_F(auth_on_receive, no_single_bit_of_a_signed_packet_can_be_changed)
{
    for (const std::uint8_t type : digest_types) {
        const bytes good = make_signed(type, 5, 101);
        receiver untouched(type);
        EXPECT_TRUE(untouched.admits(good));
        for (std::size_t bit = 0; bit < good.size() * 8; bit++) {
            bytes changed = good;
            changed[bit / 8] = static_cast<std::uint8_t>(changed[bit / 8] ^ 1 << bit % 8);
            receiver session(type);
            const bool admitted = kelm_packet_valid(exact_copy(changed).ctrl(), changed.size()) &&
                                  session.admits(changed);
            EXPECT_FALSE(admitted) << "type " << +type << " bit " << bit;
        }
    }
}

TEST_F(auth_on_receive, digest_covers_the_length_field_and_not_what_follows)
{
    for (const std::uint8_t type : digest_types) {
        bytes packet = make_signed(type, 5, 1);
        packet.resize(packet.size() + 9, 0xee);
        EXPECT_TRUE(receiver(type).admits(packet));
    }
}

// Transmit

struct sender {
    std::uint8_t type;
    std::uint32_t seq_num = 0;
    bfd_auth_hdr hdr = {};

    explicit sender(std::uint8_t auth_type, std::uint32_t first = 0)
        : type(auth_type), seq_num(first)
    {
        std::memcpy(hdr.sha1.key_digest, secret.data(), sizeof hdr.sha1.key_digest);
    }

    // The frame, after it has been made ready.
    bytes process(const bytes &frame, std::uint32_t latch_offset)
    {
        exact_copy copy(frame);
        kelm_auth_process(copy.data(), frame.size(), latch_offset, KELM_TX_SESSION_IP, type,
                          &seq_num, &hdr, remember);
        return copy.contents();
    }
};

TEST_F(auth_on_transmit, writes_known_digests)
{
    const struct {
        std::uint8_t type;
        bytes digest; // of the packet with sequence number 7, computed elsewhere
    } rows[] = {
        {BFD_AUTH_METICULOUS_MD5,
         {0x41, 0x29, 0xfc, 0xb3, 0xb5, 0xc8, 0x31, 0xfc, 0x45, 0x12, 0x37, 0x04, 0x50, 0x38, 0x95,
          0x73}},
        {BFD_AUTH_METICULOUS_SHA1, {0x6b, 0x52, 0xbd, 0x49, 0x80, 0x51, 0x14, 0x43, 0xa6, 0x50,
                                    0x7f, 0x15, 0x01, 0xcb, 0x11, 0x40, 0x1f, 0x43, 0x68, 0xc2}},
    };
    for (const auto &row : rows) {
        sender s(row.type, 7);
        bytes expected = make_packet(make_seq_section(row.type, 5, 7));
        std::ranges::copy(row.digest, expected.begin() + 32);
        EXPECT_EQ(s.process(make_packet(make_seq_section(row.type, 5, 0)), 0), expected);
        EXPECT_EQ(s.seq_num, 8u);
        EXPECT_EQ(take_traced(), (std::vector<trace_line>{{KELM_DLOG, my_disc, "Tx seqnum 7"}}));
    }
}

TEST_F(auth_on_transmit, types_without_sequence_number_change_nothing)
{
    for (const std::uint8_t type : bytes{0, 1, 6, 7, 253, 254}) {
        sender s(type, 7);
        const bytes packet = make_password_packet(5, "abc");
        EXPECT_EQ(s.process(packet, 0), packet);
        EXPECT_EQ(s.seq_num, 7u);
        EXPECT_EQ(take_traced(), std::vector<trace_line>{});
    }
}

TEST_F(auth_on_transmit, counter_of_meticulous_and_debug_types_wraps)
{
    for (const std::uint8_t type : bytes{3, 5, 255}) {
        sender s(type, 4294967295);
        const bytes packet = make_packet(make_seq_section(type, 5, 0));
        EXPECT_EQ(load_be32(&s.process(packet, 0)[28]), 4294967295u);
        EXPECT_EQ(s.seq_num, 0u);
        EXPECT_EQ(load_be32(&s.process(packet, 0)[28]), 0u);
        EXPECT_EQ(s.seq_num, 1u);
        EXPECT_EQ(take_traced(),
                  (std::vector<trace_line>{{KELM_DLOG, my_disc, "Tx seqnum 4294967295"},
                                           {KELM_DLOG, my_disc, "Tx seqnum 0"}}));
    }
}

TEST_F(auth_on_transmit, debug_type_writes_the_number_and_nothing_else)
{
    sender s(BFD_AUTH_DEBUG_SEQNUM, 0x01020304);
    const bytes packet = make_packet(make_seq_section(BFD_AUTH_DEBUG_SEQNUM, 5, 0));
    EXPECT_EQ(s.process(packet, 0),
              make_packet(make_seq_section(BFD_AUTH_DEBUG_SEQNUM, 5, 0x01020304)));
}

TEST_F(auth_on_transmit, keyed_types_send_the_raw_clock_and_leave_the_counter)
{
    for (const std::uint8_t type : bytes{2, 4}) {
        sender s(type, 99);
        timespec64 before, after;
        ktime_get_raw_ts64(&before);
        const bytes sent = s.process(make_packet(make_seq_section(type, 5, 0)), 0);
        ktime_get_raw_ts64(&after);
        EXPECT_GE(load_be32(&sent[28]), static_cast<std::uint32_t>(before.tv_sec));
        EXPECT_LE(load_be32(&sent[28]), static_cast<std::uint32_t>(after.tv_sec));
        EXPECT_EQ(s.seq_num, 99u);
    }
}

TEST_F(auth_on_transmit, packet_without_room_for_its_section_is_left_alone)
{
    for (const std::uint8_t type : bytes{2, 3, 4, 5, 255}) {
        const bytes whole = make_packet(make_seq_section(type, 5, 0));
        for (std::size_t len = 0; len < whole.size(); len++) {
            sender s(type, 7);
            const bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(len));
            EXPECT_EQ(s.process(cut, 0), cut);
            EXPECT_EQ(s.seq_num, 7u);
        }
        sender s(type, 7);
        for (const std::uint32_t offset : {1u, 100u, 4294967295u})
            EXPECT_EQ(s.process(whole, offset), whole);
        EXPECT_EQ(take_traced(), std::vector<trace_line>{});
    }
}

TEST_F(auth_on_transmit, length_field_beyond_the_packet_is_cut_to_it)
{
    for (const std::uint8_t type : digest_types) {
        bytes packet = make_packet(make_seq_section(type, 5, 0));
        packet[3] = 255;
        bytes sent = sender(type, 7).process(packet, 0);
        bytes expected = sent;
        sign(expected, secret); // over the bytes that there are
        EXPECT_EQ(sent, expected);
    }
}

// Both ends

TEST_F(auth, receiver_admits_what_the_sender_makes)
{
    for (const std::uint8_t type : digest_types)
        for (const std::uint32_t latch_offset : {28u, 42u, 48u, 63u}) {
            const bytes packet = make_packet(make_seq_section(type, 5, 0));
            bytes frame(latch_offset, 0xdd);
            frame.insert(frame.end(), packet.begin(), packet.end());
            sender s(type, 4294967290); // wraps on the way
            receiver session(type);
            bytes last;
            for (int i = 0; i < 20; i++) {
                frame = s.process(frame, latch_offset);
                const bytes sent(frame.begin() + latch_offset, frame.end());
                ASSERT_EQ(bytes(frame.begin(), frame.begin() + latch_offset),
                          bytes(latch_offset, 0xdd));
                ASSERT_TRUE(kelm_packet_valid(exact_copy(sent).ctrl(), sent.size()));
                ASSERT_TRUE(session.admits(sent)) << +type << " packet " << i;
                last = sent;
            }
            EXPECT_EQ(session.admits(last), kelm_auth_is_keyed(type)) << "replay";
        }
}

TEST_F(auth, debug_numbers_arrive_as_sent)
{
    bytes packet = make_packet();
    const bytes trailer = make_seq_section(BFD_AUTH_DEBUG_SEQNUM, 0, 0);
    packet.insert(packet.end(), trailer.begin(), trailer.end());
    sender s(BFD_AUTH_DEBUG_SEQNUM, 41);
    receiver session(BFD_AUTH_DEBUG_SEQNUM);
    EXPECT_TRUE(session.admits(s.process(packet, 0)));
    EXPECT_EQ(take_traced(), (std::vector<trace_line>{{KELM_DLOG, my_disc, "Tx seqnum 41"},
                                                      {KELM_DLOG, your_disc, "Rx seqnum 41"}}));
}

} // namespace
