// SPDX-License-Identifier: GPL-2.0
//
// Authentication: the arithmetic of types, who is admitted on receive, and what transmission
// writes. That each end understands the other is tested with whole engines.
#include <array>
#include <cstring>

#include "md5.h"
#include "protocol_fixture.h"
#include "sha1.h"

namespace
{

using namespace std::string_literals;

constexpr std::uint8_t digest_types[] = {BFD_AUTH_KEYED_MD5, BFD_AUTH_METICULOUS_MD5,
                                         BFD_AUTH_KEYED_SHA1, BFD_AUTH_METICULOUS_SHA1};

const std::string secret = "0123456789abcdefghij"; // 20 bytes: MD5 takes the first 16

kelm_bfd_auth_key make_key(std::uint8_t key_id, const std::string &key, std::uint8_t valid = 1)
{
    kelm_bfd_auth_key slot = {};
    std::memcpy(slot.key, key.data(), key.size());
    slot.key_id = key_id;
    slot.key_valid = valid;
    return slot;
}

// Puts the digest in, by the rule of RFC 5880 sections 6.7.3 and 6.7.4.
void sign(bytes &packet)
{
    std::uint8_t *digest = &packet[32];
    if (kelm_is_md5_auth(packet[24])) {
        std::memcpy(digest, secret.data(), 16);
        kelm_md5_cksum(packet.data(), packet.size(), packet.size(), digest, nullptr);
    } else {
        std::memcpy(digest, secret.data(), 20);
        kelm_sha1_ctxt ctxt;
        kelm_sha1_init(&ctxt);
        kelm_sha1_loop(&ctxt, packet.data(), packet.size());
        kelm_sha1_result(&ctxt, digest);
    }
}

bytes make_signed(std::uint8_t type, std::uint8_t key_id, std::uint32_t seq_num)
{
    bytes packet = make_packet(make_seq_section(type, key_id, seq_num));
    sign(packet);
    return packet;
}

bytes make_password_packet(std::uint8_t key_id, const std::string &password)
{
    bytes section = {BFD_AUTH_PASSWORD, static_cast<std::uint8_t>(3 + password.size()), key_id};
    section.insert(section.end(), password.begin(), password.end());
    return make_packet(section);
}

// "admitted" or "refused", counters that moved, and the texts that were traced.
using verdict = std::vector<std::string>;

// The receiving session.
struct receiver {
    kelm_auth_config config = {};
    std::array<kelm_bfd_auth_key, 2> keys = {make_key(5, secret), kelm_bfd_auth_key{}};
    std::uint32_t seq_num = 0;
    std::uint8_t multiplier = 3;
    bytes packet_after = {}; // as the check left it

    explicit receiver(std::uint8_t type = BFD_AUTH_NONE, std::uint32_t last = 0) : seq_num(last)
    {
        config.type = type;
    }

    verdict check(const bytes &packet)
    {
        std::uint64_t auth_fail = 0, type_mismatch = 0;
        exact_copy received(packet);
        traced.clear();
        const bool admitted = kelm_auth_valid(
            &config, keys.data(), &seq_num, &auth_fail, &type_mismatch, multiplier, received.ctrl(),
            nullptr, 2, static_cast<std::int32_t>(packet.size()) - 24, remember);
        verdict result = {admitted ? "admitted" : "refused"};
        if (auth_fail != 0)
            result.push_back("auth failures: " + std::to_string(auth_fail));
        if (type_mismatch != 0)
            result.push_back("type mismatches: " + std::to_string(type_mismatch));
        for (const auto &[type, discriminator, text] : traced) {
            EXPECT_EQ(discriminator, load_be32(&packet[8]));
            EXPECT_EQ(type, KELM_DLOG);
            result.push_back(text);
        }
        packet_after = received.contents();
        return result;
    }

    bool admits(const bytes &packet) { return check(packet).front() == "admitted"; }
};

TEST(auth, section_must_be_of_the_session_s_type)
{
    for (unsigned type = 0; type < 256; ++type) {
        receiver session(static_cast<std::uint8_t>(type));
        EXPECT_EQ(session.check(make_packet()),
                  verdict{type == 0 || type == 255 ? "admitted" : "refused"});
        const auto other = type == 4 ? BFD_AUTH_KEYED_MD5 : BFD_AUTH_KEYED_SHA1;
        EXPECT_EQ(session.check(make_signed(other, 5, 1)),
                  (verdict{"refused", "type mismatches: 1"}));
        EXPECT_EQ(session.seq_num, 0u);
    }
    EXPECT_EQ(receiver(BFD_AUTH_KEYED_MD5).check(make_packet({BFD_AUTH_KEYED_MD5, 2})),
              (verdict{"refused", "auth failures: 1",
                       "Rx: authFailure due to auth set and the presence of a short auth header"}));
}

TEST(auth, traces_the_sequence_number_of_any_trailer_that_has_one)
{
    const auto check = [](std::uint8_t type, std::size_t trailer) {
        bytes packet = make_packet();
        packet.resize(24 + trailer); // behind the packet's own length: no A bit
        packet[24] = type;
        if (trailer >= 8)
            store_be32(&packet[28], 4000000000);
        return receiver(BFD_AUTH_DEBUG_SEQNUM).check(packet);
    };
    for (const std::uint8_t type : bytes{2, 3, 4, 5, 255})
        EXPECT_EQ(check(type, 8), (verdict{"admitted", "Rx seqnum 4000000000"})) << +type;
    for (const std::uint8_t type : bytes{0, 1, 6, 254})
        EXPECT_EQ(check(type, 8), verdict{"admitted"}) << +type;
    EXPECT_EQ(check(255, 7), verdict{"admitted"});
    // With the A bit it has no secret that could be checked.
    EXPECT_EQ(receiver(255).check(make_packet(make_seq_section(255, 5, 9))),
              (verdict{"refused", "Rx seqnum 9"}));
}

TEST(auth, key_is_found_by_its_id_and_the_first_slot_wins)
{
    const kelm_bfd_auth_key good_5 = make_key(5, secret), good_7 = make_key(7, secret);
    const kelm_bfd_auth_key bad_5 = make_key(5, "wrong"), bad_7 = make_key(7, "wrong");
    const kelm_bfd_auth_key invalid_5 = make_key(5, "wrong", 0);
    const kelm_bfd_auth_key other_truth_5 = make_key(5, secret, 0x80);
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
        verdict expected = {row.admitted ? "admitted" : "refused", "Rx seqnum 1"};
        if (!row.found)
            expected.push_back("key id not found " + std::to_string(row.key_id));
        receiver session(BFD_AUTH_METICULOUS_SHA1);
        session.keys = row.keys;
        EXPECT_EQ(session.check(make_signed(BFD_AUTH_METICULOUS_SHA1, row.key_id, 1)), expected)
            << &row - rows;
        EXPECT_EQ(session.seq_num, row.found ? 1u : 0u) << &row - rows;
    }
}

TEST(auth, password_must_agree_in_length_and_bytes)
{
    const struct {
        std::string configured, sent;
        const char *failure; // null: admitted
    } rows[] = {
        {"abc", "abc", nullptr},
        {"0123456789abcdefXYZ", "0123456789abcdef", nullptr}, // only 16 bytes are a password
        {"abc", "abd", ""},
        {"0123456789abcdef", "0123456789abcdeF", ""},
        {"abc", "abcd", "6; received 7"},
        {"abcd", "abc", "7; received 6"},
        {"", "a", "3; received 4"},
        {std::string("ab\0cd", 5), "abc", "5; received 6"},
        {"abc", std::string("abc\0", 4), "6; received 7"},
    };
    for (const auto &row : rows) {
        receiver session(BFD_AUTH_PASSWORD);
        session.keys[0] = make_key(5, row.configured);
        const bytes packet = make_password_packet(5, row.sent);
        verdict expected = {row.failure == nullptr ? "admitted" : "refused"};
        if (row.failure != nullptr && *row.failure != '\0')
            expected.push_back("Rx: authFailure due to auth header length mismatch; expected; "s +
                               row.failure);
        EXPECT_EQ(session.check(packet), expected) << row.configured << " " << row.sent;
        EXPECT_EQ(session.packet_after, packet);
        EXPECT_EQ(session.seq_num, 0u);
    }
}

TEST(auth, sequence_number_must_lie_in_the_window_of_its_type)
{
    constexpr std::uint32_t max = 4294967295;
    constexpr std::uint8_t keyed = BFD_AUTH_KEYED_MD5, meticulous = BFD_AUTH_METICULOUS_MD5;
    const struct {
        std::uint8_t type, multiplier;
        std::uint32_t last, received;
        const char *expected; // null: admitted
    } rows[] = {
        {keyed, 3, 0, 0, nullptr},
        {keyed, 3, 100, 100, nullptr},
        {keyed, 3, 100, max, nullptr},
        {keyed, 3, 100, 99, ">= 100"},
        {keyed, 3, max, 0, ">= 4294967295"},
        {meticulous, 3, 0, max, nullptr},
        {meticulous, 3, 100, 101, nullptr},
        {meticulous, 3, 100, 103, nullptr},
        {meticulous, 3, 100, 100, "> 100 and <= 103"},
        {meticulous, 3, 100, 104, "> 100 and <= 103"},
        {meticulous, 3, 100, 99, "> 100 and <= 103"},
        {meticulous, 255, 100, 355, nullptr},
        {meticulous, 0, 100, 101, "> 100 and <= 100"},
        // Across the end of the number space.
        {meticulous, 3, max - 1, 1, nullptr},
        {meticulous, 3, max - 1, 2, "> 4294967294 and <= 1"},
        {meticulous, 3, max, max, "> 4294967295 and <= 2"},
        {meticulous, 3, 1, max, "> 1 and <= 4"},
    };
    for (const auto &row : rows)
        for (const int sha1 : {0, 2}) { // the SHA-1 type of the same rule
            const auto type = static_cast<std::uint8_t>(row.type + sha1);
            const std::string received = std::to_string(row.received);
            verdict expected = {"admitted", "Rx seqnum " + received};
            if (row.expected != nullptr)
                expected = {"refused", "Rx seqnum " + received,
                            "seqnum failed received " + received + " expected " + row.expected};
            receiver session(type, row.last);
            session.multiplier = row.multiplier;
            EXPECT_EQ(session.check(make_signed(type, 5, row.received)), expected)
                << +type << ": " << row.received << " after " << row.last;
            EXPECT_EQ(session.seq_num, row.expected == nullptr ? row.received : row.last);
            // The secret can be checked without the number.
            exact_copy same(make_signed(type, 5, row.received));
            EXPECT_TRUE(kelm_bfd_secret_valid(same.ctrl(), session.keys.data(), remember));
        }
}

// Nor of what its length field says comes behind the section.
TEST(auth, no_single_bit_of_a_signed_packet_can_be_changed)
{
    const auto expect_protected = [](std::uint8_t type, std::uint8_t behind_section) {
        bytes good = make_packet(make_seq_section(type, 5, 101));
        const std::size_t section_end = good.size();
        good.resize(section_end + behind_section, 0xdd);
        good[3] = static_cast<std::uint8_t>(good.size());
        sign(good);
        EXPECT_TRUE(receiver(type, 100).admits(good));
        for (std::size_t bit = 0; bit < good.size() * 8; ++bit) {
            bytes changed = good;
            changed[bit / 8] ^= static_cast<std::uint8_t>(1 << bit % 8);
            receiver session(type, 100);
            EXPECT_FALSE(kelm_packet_valid(exact_copy(changed).ctrl(), changed.size()) &&
                         session.admits(changed))
                << "type " << +type << " bit " << bit;
            // A wrong digest is replaced, and has moved the sequence number.
            if (bit / 8 >= 32 && bit / 8 < section_end) {
                EXPECT_EQ(session.packet_after, good);
                EXPECT_EQ(session.seq_num, 101u);
            }
        }
        bytes longer = good; // than its length field, which is what the digest covers
        longer.resize(good.size() + 9, 0xee);
        EXPECT_TRUE(receiver(type).admits(longer));
    };
    for (const std::uint8_t type : digest_types)
        for (const std::uint8_t behind_section : bytes{0, 8})
            expect_protected(type, behind_section);
}

struct sender {
    std::uint8_t type;
    std::uint32_t seq_num = 0;

    // The frame, after it has been made ready.
    bytes process(const bytes &frame, std::uint32_t latch_offset = 0)
    {
        bfd_auth_hdr hdr = {};
        std::memcpy(hdr.sha1.key_digest, secret.data(), sizeof hdr.sha1.key_digest);
        exact_copy copy(frame);
        traced.clear();
        kelm_auth_process(copy.data(), frame.size(), latch_offset, KELM_TX_SESSION_IP, type,
                          &seq_num, &hdr, remember);
        return copy.contents();
    }
};

TEST(auth, counter_of_meticulous_and_debug_types_wraps)
{
    for (const std::uint8_t type : bytes{3, 5, 255}) {
        sender s{type, 4294967295};
        for (const std::uint32_t number : {4294967295u, 0u, 1u}) {
            const bytes sent = s.process(make_packet(make_seq_section(type, 5, 0)));
            EXPECT_EQ(load_be32(&sent[28]), number);
            EXPECT_EQ(traced, (std::vector<trace_line>{
                                  {KELM_DLOG, my_disc, "Tx seqnum " + std::to_string(number)}}));
        }
    }
}

TEST(auth, without_sequence_number_or_room_nothing_changes)
{
    const auto expect_unchanged = [](std::uint8_t type, const bytes &packet, std::uint32_t offset) {
        sender s{type, 7};
        EXPECT_EQ(s.process(packet, offset), packet) << +type << " " << offset;
        EXPECT_EQ(s.seq_num, 7u);
        EXPECT_TRUE(traced.empty());
    };
    for (const std::uint8_t type : bytes{0, 1, 6, 7, 253, 254})
        expect_unchanged(type, make_password_packet(5, "0123456789abcdef"), 0);
    for (const std::uint8_t type : bytes{2, 3, 4, 5, 255}) {
        const bytes whole = make_packet(make_seq_section(type, 5, 0));
        for (std::size_t len = 0; len < whole.size(); ++len)
            expect_unchanged(type, bytes(whole.data(), whole.data() + len), 0);
        for (const std::uint32_t offset : {1u, 100u, 4294967295u})
            expect_unchanged(type, whole, offset);
    }
}

TEST(auth, digest_covers_what_the_length_field_says_as_far_as_there_is_any)
{
    for (const std::uint8_t type : digest_types)
        for (const std::uint8_t len : bytes{52, 255}) {
            bytes packet = make_packet(make_seq_section(type, 5, 0));
            packet.resize(60, 0xee);
            packet[3] = len;
            const bytes sent = sender{type, 7}.process(packet);
            bytes covered(sent.begin(), sent.begin() + std::min<std::ptrdiff_t>(len, 60));
            const bytes expected = covered;
            sign(covered);
            EXPECT_EQ(covered, expected);
        }
}

} // namespace
