// SPDX-License-Identifier: GPL-2.0
//
// Which control packets are valid; the texts of the protocol library.
#include <cstring>
#include <numeric>

#include "protocol_fixture.h"
#include "trace_text.h"

namespace
{

struct header {
    unsigned version = 1;
    unsigned state = BFD_STATE_UP;
    std::uint8_t flags = 0;
    std::uint8_t multiplier = 3;
    std::uint8_t len = 24;
    std::uint32_t my_discriminator = 1;
    std::uint32_t your_discriminator = 1;
    std::uint8_t auth_type = 0;
    std::uint8_t auth_len = 0;
};

// The first `available` bytes of the packet, in a block of that size.
exact_copy encode(const header &h, std::size_t available)
{
    bytes packet(256);
    packet[0] = static_cast<std::uint8_t>(h.version << 5);
    packet[1] = static_cast<std::uint8_t>(h.state << 6 | h.flags);
    packet[2] = h.multiplier;
    packet[3] = h.len;
    store_be32(&packet[4], h.my_discriminator);
    store_be32(&packet[8], h.your_discriminator);
    packet[24] = h.auth_type;
    packet[25] = h.auth_len;
    return exact_copy({packet.data(), available});
}

// RFC 5880 sections 4.2 to 4.4, and the debugging type.
bool section_ok(std::uint8_t type, std::uint8_t len)
{
    const struct {
        std::uint8_t type, min_len, max_len;
    } rules[] = {{1, 4, 19}, {2, 24, 24}, {3, 24, 24}, {4, 28, 28}, {5, 28, 28}, {255, 8, 8}};
    return std::ranges::any_of(rules, [=](const auto &rule) {
        return type == rule.type && len >= rule.min_len && len <= rule.max_len;
    });
}

// RFC 5880 section 6.8.6, written as a list of what discards a packet.
bool rfc_accepts(const header &h, std::size_t available)
{
    const bool auth_present = (h.flags & BFD_FLAG_AUTH_PRESENT) != 0;
    if (auth_present && !section_ok(h.auth_type, h.auth_len))
        return false;
    const int needed = auth_present ? 24 + h.auth_len : 24;
    const bool session_is_down = h.state == BFD_STATE_ADMIN_DOWN || h.state == BFD_STATE_DOWN;
    const bool discarded = available < 24 || h.version != 1 || h.len < needed ||
                           h.len > available || h.multiplier == 0 ||
                           (h.flags & BFD_FLAG_MULTIPOINT) != 0 || h.my_discriminator == 0 ||
                           (h.your_discriminator == 0 && !session_is_down);
    return !discarded;
}

// Compares the two opinions, and counts the verdicts: a comparison that only ever sees one of
// them would be none.
class validation : public testing::Test
{
  protected:
    void check(const header &h, std::size_t available)
    {
        exact_copy packet = encode(h, available);
        const bool valid = kelm_packet_valid(packet.ctrl(), available);
        ASSERT_EQ(valid, rfc_accepts(h, available))
            << hex(packet.contents()) << ", section " << +h.auth_type << "/" << +h.auth_len;
        (valid ? valid_ : invalid_)++;
    }

    void TearDown() override { EXPECT_TRUE(valid_ > 0 && invalid_ > 0); }

  private:
    int valid_ = 0;
    int invalid_ = 0;
};

TEST_F(validation, agrees_with_the_rfc_on_lengths)
{
    for (const std::uint8_t flags : bytes{0, BFD_FLAG_AUTH_PRESENT})
        for (const std::uint8_t len : bytes{0, 23, 24, 26, 27, 28, 32, 43, 47, 48, 51, 52, 53, 255})
            for (const std::size_t available : bytes{0, 23, 24, 25, 27, 28, 43, 48, 52, 53, 255})
                for (const std::uint8_t type : bytes{0, 1, 2, 3, 4, 5, 6, 254, 255})
                    for (const std::uint8_t auth_len :
                         bytes{0, 3, 4, 5, 8, 9, 19, 20, 23, 24, 25, 28, 29, 255})
                        ASSERT_NO_FATAL_FAILURE(check(
                            {.flags = flags, .len = len, .auth_type = type, .auth_len = auth_len},
                            available));
}

TEST_F(validation, agrees_with_the_rfc_on_fields)
{
    for (unsigned version = 0; version < 8; ++version)
        for (unsigned state = 0; state < 4; ++state)
            for (std::uint8_t flags = 0; flags < 64; ++flags)
                for (const std::uint8_t multiplier : bytes{0, 1, 255})
                    for (const std::uint32_t my : {0u, 1u, 0x1000000u})
                        for (const std::uint32_t your : {0u, 1u, 0x1000000u})
                            ASSERT_NO_FATAL_FAILURE(check({.version = version,
                                                           .state = state,
                                                           .flags = flags,
                                                           .multiplier = multiplier,
                                                           .len = 28,
                                                           .my_discriminator = my,
                                                           .your_discriminator = your,
                                                           .auth_type = 1,
                                                           .auth_len = 4},
                                                          28));
}

TEST(bfd_packet, hex_dump_groups_by_four_and_ends_at_100_bytes)
{
    bytes data(150);
    std::iota(data.begin(), data.end(), std::uint8_t{0x9a});
    std::string first_100 = hex(std::span(data).first(100));
    for (std::size_t at = 8; at < first_100.size(); at += 9)
        first_100.insert(at, " ");
    const std::pair<std::size_t, std::string> cases[] = {
        {0, ""},          {1, "9a"},        {4, "9a9b9c9d"}, {6, "9a9b9c9d 9e9f"},
        {100, first_100}, {101, first_100}, {150, first_100}};
    for (const auto &[size, text] : cases) {
        exact_copy dumped({data.data(), size});
        traced.clear();
        kelm_dump_count_hex_bytes(77, dumped.data(), static_cast<std::uint32_t>(size), remember);
        EXPECT_EQ(traced, (std::vector<trace_line>{{KELM_DLOG, 77, text}})) << size;
    }
}

TEST(trace_text, writes_numbers_in_full_and_cuts_off_what_does_not_fit)
{
    trace_text<40> text;
    EXPECT_STREQ(text.c_str(), "");
    text << 0u << " " << 10u << " " << 4294967295u << " " << hex_byte{0x0f} << hex_byte{0xa0};
    EXPECT_STREQ(text.c_str(), "0 10 4294967295 0fa0");

    trace_text<5> narrow;
    narrow << "abc" << 4567u << "x";
    EXPECT_STREQ(narrow.c_str(), "abc4");
}

} // namespace
