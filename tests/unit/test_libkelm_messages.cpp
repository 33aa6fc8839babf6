// SPDX-License-Identifier: GPL-2.0
//
// Messages of any content as they come in.
#include <array>

#include "libkelm/report.h"
#include "libkelm_fake.h"

namespace
{

using namespace libkelm_fake;

std::vector<kelm::report> parse_all(kelm::byte_view datagram)
{
    std::vector<kelm::report> reports;
    kelm::message_reader reader(datagram);
    while (auto msg = reader.next())
        reports.push_back(kelm::decode_report(kelm::check_report(*msg)));
    return reports;
}

kelm::report parse_one(std::uint16_t type, const kelm::bytes &body)
{
    return parse_all(message(type, 0, 0, body)).at(0);
}

template<typename T>
bool is(const kelm::report &report)
{
    return std::holds_alternative<T>(report);
}

TEST(report, body_too_short_for_its_type_is_kept_as_unknown)
{
    struct {
        std::uint16_t type;
        std::size_t size;
        bool (*is_parsed)(const kelm::report &);
    } const cases[] = {
        {KELM_MSG_TX_STATS, 184, is<kelm_msg_tx_stats>},
        {KELM_MSG_TX_SYNC, 4, is<kelm_msg_tx_sync>},
        {KELM_MSG_RX_STATS, 168, is<kelm_msg_rx_stats>},
        {KELM_MSG_RX_PACKET_CHANGE, 24, is<kelm::packet_change>},
        {KELM_MSG_RX_SYNC, 8, is<kelm_msg_rx_sync>},
        {KELM_MSG_MODULE_STATS, 120, is<kelm_msg_module_stats>},
        {KELM_MSG_SESSION_FAILURE, 4, is<kelm::session_failure>},
    };
    for (const auto &c : cases) {
        EXPECT_TRUE(c.is_parsed(parse_one(c.type, kelm::bytes(c.size)))) << c.type;
        for (std::size_t size = 0; size < c.size; ++size)
            EXPECT_TRUE(is<kelm::unknown_message>(parse_one(c.type, kelm::bytes(size))))
                << c.type << ' ' << size;
    }
}

TEST(report, packet_change_that_points_outside_its_frame_is_not_one)
{
    struct {
        std::uint32_t packet_len, l3, bfd;
        std::size_t there;
        bool good;
    } const cases[] = {
        {66, 14, 42, 66, true},         {66, 14, 42, 67, true},
        {66, 66, 66, 66, true},         {66, 14, 42, 65, false},
        {66, 67, 42, 66, false},        {66, 14, 67, 66, false},
        {0xffffffff, 0, 0, 66, false},  {0, 0, 0, 0, true},
        {0, 1, 0, 66, false},           {66, 0xffffffff, 0, 66, false},
        {66, 0, 0xffffffff, 66, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.packet_len << ' ' << c.l3 << ' ' << c.bfd);
        const std::array head = {5U, 6U, 7U, c.l3, c.bfd, c.packet_len};
        const auto report =
            parse_one(KELM_MSG_RX_PACKET_CHANGE, bytes_of(head) + kelm::bytes(c.there, 0x55));
        const auto *change = std::get_if<kelm::packet_change>(&report);
        ASSERT_EQ(change != nullptr, c.good);
        if (!c.good)
            continue;
        EXPECT_EQ((std::array{change->discriminator, change->ifindex, change->member_ifindex,
                              change->l3_offset, change->bfd_offset}),
                  (std::array{5U, 6U, 7U, c.l3, c.bfd}));
        EXPECT_EQ(change->frame, kelm::bytes(c.packet_len, 0x55));
    }
}

TEST(report, message_that_does_not_fit_ends_the_datagram)
{
    const kelm::bytes good = message(KELM_MSG_TX_SYNC, 0, 0, from_hex("06000000"));
    for (const std::uint32_t bad_length : {0U, 15U, 21U, 0x7fffffffU, 0xffffffffU, 0xfffffffdU}) {
        kelm::bytes bad = good;
        std::memcpy(bad.data(), &bad_length, sizeof bad_length);
        EXPECT_EQ(parse_all(good + bad).size(), 1U) << bad_length;
        EXPECT_EQ(parse_all(bad + good).size(), bad_length == 21 ? 1U : 0U) << bad_length;
    }
    for (std::size_t length = 0; length < good.size(); ++length)
        EXPECT_TRUE(parse_all(kelm::byte_view(good).first(length)).empty()) << length;
    // The last message's padding may be missing.
    const kelm::bytes odd = message(999, 0, 0, from_hex("cc"));
    EXPECT_EQ(parse_all(kelm::byte_view(odd).first(17)).size(), 1U);
}

} // namespace
