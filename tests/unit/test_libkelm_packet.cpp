// SPDX-License-Identifier: GPL-2.0
//
// The packet builder against packets that were put together by another program, and the decoder
// against the same and against bytes of no sense.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>

#include "libkelm/error.h"
#include "libkelm/frame.h"
#include "libkelm/packet.h"
#include "libkelm_fake.h"

namespace
{

using libkelm_fake::from_hex;

kelm::ip_address ip(const std::string &text)
{
    return kelm::ip_address::parse(text).value();
}

kelm::bytes octets(const std::string &text)
{
    return {text.begin(), text.end()};
}

kelm::packet_settings plain_ipv4()
{
    kelm::packet_settings settings;
    settings.source = ip("10.0.0.1");
    settings.destination = ip("10.0.0.2");
    settings.source_port = 49157;
    settings.bfd.my_discriminator = 5;
    settings.bfd.min_tx_interval = 300'000;
    settings.bfd.min_rx_interval = 300'000;
    return settings;
}

kelm::packet_settings md5_ipv6()
{
    kelm::packet_settings settings;
    settings.source = ip("fd00::1");
    settings.destination = ip("fd00::2");
    settings.source_port = 50000;
    settings.destination_port = kelm::port_multihop;
    settings.ttl = 254;
    settings.bfd = {.diag = BFD_DIAG_NEIGH_DOWN,
                    .state = BFD_STATE_UP,
                    .poll = true,
                    .final = true,
                    .control_plane_independent = false,
                    .demand_mode = true,
                    .detect_multiplier = 1,
                    .my_discriminator = 0x01020304,
                    .your_discriminator = 0xa0b0c0d0,
                    .min_tx_interval = 0xffffffff,
                    .min_rx_interval = 1,
                    .min_echo_rx_interval = 2};
    settings.auth = {BFD_AUTH_METICULOUS_MD5, 7, octets("0123456789abcdef")};
    return settings;
}

kelm::packet_settings password_frame()
{
    kelm::packet_settings settings = plain_ipv4();
    settings.source_port = 49152;
    settings.destination_port = kelm::port_lag;
    settings.ethernet = {{kelm::mac_address::parse("01:00:5e:90:00:01").value(),
                          kelm::mac_address::parse("02:00:00:00:00:01").value()}};
    settings.bfd.state = BFD_STATE_INIT;
    settings.bfd.my_discriminator = 1;
    settings.bfd.your_discriminator = 2;
    settings.bfd.min_tx_interval = 50'000;
    settings.bfd.min_rx_interval = 50'000;
    settings.auth = {BFD_AUTH_PASSWORD, 200, octets("secret")};
    return settings;
}

kelm::packet_settings debug_sbfd()
{
    kelm::packet_settings settings = plain_ipv4();
    settings.source_port = kelm::port_sbfd_initiator;
    settings.destination_port = kelm::port_sbfd_reflector;
    settings.auth.type = BFD_AUTH_DEBUG_SEQNUM;
    return settings;
}

const std::string md5_ipv6_hex =
    "6c000000003811fefd000000000000000000000000000001fd000000000000000000000000000002"
    "c35012b000389ab023f6013001020304a0b0c0d0ffffffff00000001000000020318070000000000"
    "00000000000000000000000000000000";

struct wire_case {
    const char *name;
    kelm::packet_settings settings;
    std::string hex;
    kelm_tx_session_types type;
    uint32_t ip_hdr_offset;
    uint32_t latch_offset;
};

class packet_on_the_wire : public testing::TestWithParam<wire_case>
{
};

TEST_P(packet_on_the_wire, is_exact)
{
    const wire_case &expected = GetParam();
    const kelm::built_packet built = kelm::build_packet(expected.settings);
    EXPECT_EQ(built.packet, from_hex(expected.hex));
    EXPECT_EQ(built.type, expected.type);
    EXPECT_EQ(built.ip_hdr_offset, expected.ip_hdr_offset);
    EXPECT_EQ(built.latch_offset, expected.latch_offset);
}

INSTANTIATE_TEST_SUITE_P(
    packets, packet_on_the_wire,
    testing::Values(
        wire_case{"ipv4", plain_ipv4(),
                  "45c0003400004000ff1166f60a0000010a000002c0050ec80020d1af204803180000000500000000"
                  "000493e0000493e000000000",
                  KELM_TX_SESSION_IP, 0, 28},
        wire_case{"ipv6_md5", md5_ipv6(), md5_ipv6_hex, KELM_TX_SESSION_IP, 0, 48},
        wire_case{"frame_password", password_frame(),
                  "01005e900001020000000001080045c0003d00004000ff1166ed0a0000010a000002c0001a800029"
                  "5181208c032100000001000000020000c3500000c350000000000109c8736563726574",
                  KELM_TX_SESSION_L2, 14, 42},
        wire_case{"debug_trailer", debug_sbfd(),
                  "45c0003c00004000ff1166ee0a0000010a000002ba291e680028c8d2204803180000000500000000"
                  "000493e0000493e000000000ff08000000000000",
                  KELM_TX_SESSION_IP, 0, 28}),
    [](const auto &param_info) { return param_info.param.name; });

// Without a checksum, UDP writes 0; a sum that comes to 0 is written as all ones.
TEST(packet, zero_checksum_is_written_as_ones)
{
    kelm::packet_settings settings = plain_ipv4();
    settings.source_port = 37301;
    const kelm::bytes packet = kelm::build_packet(settings).packet;
    EXPECT_EQ(packet[26], 0xff);
    EXPECT_EQ(packet[27], 0xff);
}

TEST(packet, key_goes_to_the_header_and_not_on_the_wire)
{
    struct {
        uint8_t type;
        std::string key;
        uint8_t section_length;
    } const cases[] = {
        {BFD_AUTH_KEYED_MD5, "sixteen-byte-key", 24},
        {BFD_AUTH_METICULOUS_MD5, "short", 24},
        {BFD_AUTH_KEYED_SHA1, "a-key-of-20-bytes-..", 28},
        {BFD_AUTH_METICULOUS_SHA1, "k", 28},
    };
    for (const auto &c : cases) {
        kelm::packet_settings settings = plain_ipv4();
        settings.auth = {c.type, 9, octets(c.key)};
        const kelm::built_packet built = kelm::build_packet(settings);
        const std::string wire(built.packet.begin(), built.packet.end());
        EXPECT_EQ(built.packet.size(), 52U + c.section_length);
        EXPECT_EQ(built.packet[28 + 3], 24 + c.section_length);
        EXPECT_EQ(wire.find(c.key, 52), std::string::npos);
        EXPECT_EQ(built.auth_hdr.common.type, c.type);
        EXPECT_EQ(built.auth_hdr.common.len, c.section_length);
        EXPECT_EQ(built.auth_hdr.common.key_id, 9);
        kelm::bytes padded = octets(c.key);
        padded.resize(20);
        EXPECT_EQ(kelm::bytes(std::begin(built.auth_hdr.sha1.key_digest),
                              std::end(built.auth_hdr.sha1.key_digest)),
                  padded);
    }
}

TEST(packet, settings_that_do_not_fit_are_refused)
{
    const auto refused = [](auto change) {
        kelm::packet_settings settings = plain_ipv4();
        change(settings);
        try {
            kelm::build_packet(settings);
            return false;
        } catch (const kelm::error &problem) {
            return problem.number() == EINVAL;
        }
    };
    using settings = kelm::packet_settings;
    EXPECT_TRUE(refused([](settings &s) { s.destination = ip("fd00::1"); }));
    EXPECT_TRUE(refused([](settings &s) { s.source = {}; }));
    EXPECT_TRUE(refused([](settings &s) { s.auth = {BFD_AUTH_PASSWORD, 1, {}}; }));
    EXPECT_TRUE(refused([](settings &s) {
        s.auth = {BFD_AUTH_PASSWORD, 1, octets("seventeen-letters")};
    }));
    EXPECT_TRUE(refused([](settings &s) { s.auth = {BFD_AUTH_PASSWORD, 1, {'a', 0, 'b'}}; }));
    EXPECT_TRUE(refused([](settings &s) {
        s.auth = {BFD_AUTH_KEYED_MD5, 1, kelm::bytes(17, 'k')};
    }));
    EXPECT_TRUE(refused([](settings &s) {
        s.auth = {BFD_AUTH_KEYED_SHA1, 1, kelm::bytes(21, 'k')};
    }));
    EXPECT_TRUE(refused([](settings &s) { s.auth = {BFD_AUTH_DEBUG_SEQNUM, 0, octets("k")}; }));
    EXPECT_TRUE(refused([](settings &s) { s.auth = {BFD_AUTH_INHERIT, 0, octets("k")}; }));
    EXPECT_FALSE(refused([](settings &) {}));
}

TEST(packet, addresses_are_parsed_whole)
{
    for (const char *bad : {"", "10.0.0", "10.0.0.1/24", "fe80::1%eth0", "localhost"})
        EXPECT_FALSE(kelm::ip_address::parse(bad)) << bad;
    EXPECT_EQ(ip("fd00:0::0:1").text(), "fd00::1");
    for (const char *bad : {"", "02:00:00:00:00", "02:00:00:00:00:01:02", "02-00-00-00-00-01",
                            "+2:00:00:00:00:01", "02: 0:00:00:00:01", "02:0x:00:00:00:01"})
        EXPECT_FALSE(kelm::mac_address::parse(bad)) << bad;
    EXPECT_EQ(kelm::mac_address::parse("2:0:0:AA:bb:c")->text(), "02:00:00:aa:bb:0c");
}

kelm::packet_change change_of(const kelm::bytes &frame, uint32_t l3, uint32_t bfd)
{
    return {.discriminator = 1,
            .ifindex = 1,
            .member_ifindex = 0,
            .l3_offset = l3,
            .bfd_offset = bfd,
            .frame = frame};
}

TEST(frame, is_decoded)
{
    const auto frame = kelm::decode_frame(change_of(from_hex(md5_ipv6_hex), 0, 48)).value();
    const kelm::bfd_packet &bfd = frame.bfd;
    EXPECT_EQ(frame.source, ip("fd00::1"));
    EXPECT_EQ(frame.destination, ip("fd00::2"));
    EXPECT_EQ(frame.ttl, 254);
    EXPECT_EQ(frame.source_port, 50000);
    EXPECT_EQ(frame.destination_port, 4784);
    EXPECT_EQ(bfd.version, 1);
    EXPECT_EQ(bfd.length, 48);
    EXPECT_TRUE(bfd.auth_present && bfd.fields.poll && bfd.fields.final && bfd.fields.demand_mode);
    EXPECT_FALSE(bfd.multipoint || bfd.fields.control_plane_independent);
    EXPECT_EQ(bfd.fields.diag, BFD_DIAG_NEIGH_DOWN);
    EXPECT_EQ(bfd.fields.state, BFD_STATE_UP);
    EXPECT_EQ(bfd.fields.my_discriminator, 0x01020304U);
    EXPECT_EQ(bfd.fields.your_discriminator, 0xa0b0c0d0U);
    EXPECT_EQ(bfd.fields.min_tx_interval, 0xffffffffU);
    EXPECT_EQ(bfd.fields.min_rx_interval, 1U);
    EXPECT_EQ(bfd.fields.min_echo_rx_interval, 2U);
    ASSERT_TRUE(bfd.auth);
    EXPECT_EQ(bfd.auth->type, BFD_AUTH_METICULOUS_MD5);
    EXPECT_EQ(bfd.auth->key_id, 7);
    EXPECT_EQ(bfd.auth->sequence, 0U);
}

TEST(frame, debug_trailer_is_seen_without_the_flag)
{
    kelm::bytes packet = kelm::build_packet(debug_sbfd()).packet;
    packet.back() = 9;
    const auto frame = kelm::decode_frame(change_of(packet, 0, 28)).value();
    ASSERT_TRUE(frame.bfd.auth);
    EXPECT_EQ(frame.bfd.auth->sequence, 9U);
    packet[52] = 0; // trailing bytes of another kind say nothing
    EXPECT_FALSE(kelm::decode_frame(change_of(packet, 0, 28))->bfd.auth);
}

// Every truncation, and offsets up to and past the end, with every first byte of the IP header.
TEST(frame, of_any_length_is_read_within_its_bounds)
{
    const kelm::bytes whole = from_hex(md5_ipv6_hex);
    for (size_t length = 0; length <= whole.size(); length++) {
        // Allocated to size, so that the sanitizer sees the first byte too many.
        kelm::bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
        cut.shrink_to_fit();
        for (uint32_t offset = 0; offset <= length + 1; offset++) {
            const auto frame = kelm::decode_frame(change_of(cut, offset, offset));
            EXPECT_EQ(frame.has_value(), offset + 24 <= length);
        }
        for (int version = 0; version < 16 && length > 0; version++) {
            cut[0] = static_cast<uint8_t>(version << 4);
            kelm::decode_frame(change_of(cut, 0, 48));
        }
    }
}

} // namespace
