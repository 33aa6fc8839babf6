// SPDX-License-Identifier: GPL-2.0
//
// What the packet builder refuses, and the decoders against bytes of no sense. Whole packets are
// compared in the tests of kelmctl.
#include <array>

#include "libkelm/error.h"
#include "libkelm/frame.h"
#include "libkelm/packet.h"
#include "libkelm/report.h"
#include "libkelm_fake.h"

namespace
{

using namespace libkelm_fake;

kelm::ip_address ip(const std::string &text)
{
    return kelm::ip_address::parse(text).value();
}

kelm::packet_settings plain_ipv4()
{
    kelm::packet_settings settings;
    settings.source = ip("10.0.0.1");
    settings.destination = ip("10.0.0.2");
    settings.source_port = 49157;
    settings.bfd.my_discriminator = 5;
    settings.bfd.min_tx_interval = settings.bfd.min_rx_interval = 300'000;
    return settings;
}

kelm::packet_change change_of(const kelm::bytes &frame, std::uint32_t l3, std::uint32_t bfd)
{
    return {.discriminator = 1,
            .ifindex = 1,
            .member_ifindex = 0,
            .l3_offset = l3,
            .bfd_offset = bfd,
            .frame = frame};
}

// Without a checksum, UDP writes 0; a sum that comes to 0 is written as all ones.
TEST(packet, zero_checksum_is_written_as_ones)
{
    kelm::packet_settings settings = plain_ipv4();
    settings.source_port = 37301;
    const kelm::bytes packet = kelm::build_packet(settings).packet;
    EXPECT_EQ(kelm::bytes(packet.begin() + 26, packet.begin() + 28), from_hex("ffff"));
}

TEST(packet, settings_that_do_not_fit_are_refused)
{
    std::vector<kelm::packet_settings> cases(2, plain_ipv4());
    cases[0].destination = ip("fd00::1");
    cases[1].source = {};
    for (const kelm::auth_settings &auth :
         std::initializer_list<kelm::auth_settings>{{BFD_AUTH_PASSWORD, 1, {}},
                                                    {BFD_AUTH_PASSWORD, 1, kelm::bytes(17, 'k')},
                                                    {BFD_AUTH_PASSWORD, 1, {'a', 0, 'b'}},
                                                    {BFD_AUTH_KEYED_MD5, 1, kelm::bytes(17, 'k')},
                                                    {BFD_AUTH_KEYED_SHA1, 1, kelm::bytes(21, 'k')},
                                                    {BFD_AUTH_DEBUG_SEQNUM, 0, {'k'}},
                                                    {BFD_AUTH_INHERIT, 0, {'k'}}})
        cases.emplace_back(plain_ipv4()).auth = auth;
    for (std::size_t i = 0; i < cases.size(); ++i)
        EXPECT_THROW(kelm::build_packet(cases[i]), kelm::error) << i;
}

TEST(packet, addresses_are_parsed_whole)
{
    for (const char *bad : {"", "10.0.0", "10.0.0.1/24", "fe80::1%eth0", "localhost"})
        EXPECT_FALSE(kelm::ip_address::parse(bad)) << bad;
    EXPECT_EQ(ip("fd00:0::0:1").text(), "fd00::1");
    for (const char *bad : {"", "02:00:00:00:00", "02:00:00:00:00:01:02", "02-00-00-00-00-01",
                            "+2:00:00:00:00:01", "02: 0:00:00:00:01", "02:0x:00:00:00:01"})
        EXPECT_FALSE(kelm::mac_address::parse(bad)) << bad;
    EXPECT_EQ(kelm::mac_address::parse("2:0:0:AA:bb:c").value().text(), "02:00:00:aa:bb:0c");
}

TEST(frame, debug_trailer_is_seen_without_the_flag)
{
    kelm::packet_settings settings = plain_ipv4();
    settings.auth.type = BFD_AUTH_DEBUG_SEQNUM;
    kelm::bytes packet = kelm::build_packet(settings).packet;
    packet.back() = 9;
    EXPECT_EQ(kelm::decode_frame(change_of(packet, 0, 28)).value().bfd.auth.value().sequence, 9U);
    packet[52] = 0; // trailing bytes of another kind say nothing
    EXPECT_FALSE(kelm::decode_frame(change_of(packet, 0, 28))->bfd.auth);
}

// Every truncation, and offsets up to and past the end, with every first byte of the IP header.
TEST(frame, of_any_length_is_read_within_its_bounds)
{
    const kelm::bytes whole =
        from_hex("6c000000003811fefd000000000000000000000000000001fd000000000000000000000000000002"
                 "c35012b000389ab023f6013001020304a0b0c0d0ffffffff00000001000000020318070000000000"
                 "00000000000000000000000000000000");
    for (std::size_t length = 0; length <= whole.size(); ++length) {
        // Allocated to size, so that the sanitizer sees the first byte too many.
        kelm::bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
        cut.shrink_to_fit();
        for (std::uint32_t offset = 0; offset <= length + 1; ++offset) {
            const auto frame = kelm::decode_frame(change_of(cut, offset, offset));
            EXPECT_EQ(frame.has_value(), offset + 24 <= length);
        }
        for (int version = 0; version < 16 && length > 0; ++version) {
            cut[0] = static_cast<std::uint8_t>(version << 4);
            kelm::decode_frame(change_of(cut, 0, 48));
        }
    }
}

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
