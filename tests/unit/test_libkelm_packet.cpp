// SPDX-License-Identifier: GPL-2.0
//
// What the packet builder refuses, and the decoder against bytes of no sense. Whole packets are
// compared in the tests of kelmctl.
#include "libkelm/error.h"
#include "libkelm/frame.h"
#include "libkelm/packet.h"
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

} // namespace
