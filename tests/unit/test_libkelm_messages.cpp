// SPDX-License-Identifier: GPL-2.0
//
// Requests as they go out, byte for byte, and messages of any content as they come in.
#include <gtest/gtest.h>

#include <cerrno>
#include <random>

#include "libkelm/error.h"
#include "libkelm/report.h"
#include "libkelm/request.h"
#include "libkelm_fake.h"

namespace
{

using libkelm_fake::from_hex;
using namespace libkelm_fake;

// The numbers below are little-endian, as every host is that kelm runs on.
struct request_case {
    const char *name;
    kelm::request request;
    std::string hex; // from the netlink header on, with sequence 0x01020304 and port id 5
    bool dump;
};

kelm_msg_tx_set_packet packet_settings()
{
    kelm_msg_tx_set_packet s = {};
    s.header.discriminator = 0x11;
    s.ifindex = 0x12;
    s.type = 1;
    s.jitter_type = 2;
    s.period = 0x13;
    s.ip_hdr_offset = 0x14;
    s.latch_offset = 0x15;
    s.latch_period = 0x16;
    s.latch_state = 0x17;
    s.flags = 0x03;
    s.auth = {.ifindex = 0x18, .type = 0x19, .flags = 0x1a, .padding = {}};
    s.auth_hdr.common.type = 0x1b;
    s.auth_hdr.common.len = 0x1c;
    s.auth_hdr.common.key_id = 0x1d;
    s.packet_len = 999; // not believed
    return s;
}

kelm_msg_rx_set_session session_settings()
{
    kelm_msg_rx_set_session s = {};
    s.header.discriminator = 0x21;
    s.type = 4;
    s.flags = 0x03;
    s.multiplier = 0x22;
    s.latch_diagnostic = 0x23;
    s.latch_tx_packets[0] = 0x24;
    s.latch_tx_packets[7] = 0x25;
    s.period = 0x26;
    s.auth = {.ifindex = 0x27, .type = 0x28, .flags = 0x29, .padding = {}};
    s.auth_key[0].key[0] = 0x2a;
    s.auth_key[0].key_id = 0x2b;
    s.auth_key[0].key_valid = 1;
    s.auth_key[1].key[19] = 0x2c;
    return s;
}

const kelm::bytes five = {1, 2, 3, 4, 5};

std::string zeros(size_t count)
{
    return std::string(2 * count, '0');
}

TEST(request, is_exact)
{
    const std::string id = "0403020105000000";
    const request_case cases[] = {
        {"set packet", kelm::set_packet(packet_settings(), five),
         "5d00000010000500" + id +
             "11000000"
             "12000000"
             "0100"
             "0200"
             "13000000"
             "14000000"
             "15000000"
             "16000000"
             "17"
             "03"
             "0000"
             "18000000"
             "19"
             "1a"
             "0000"
             "1b1c1d" +
             zeros(25) +
             "05000000"
             "0102030405" +
             zeros(3),
         false},
        {"delete packet", kelm::delete_packet(7), "1400000011000500" + id + "07000000", false},
        {"set session", kelm::set_session(session_settings(), five),
         "7d00000014000500" + id +
             "21000000"
             "04"
             "03"
             "22"
             "23"
             "24000000" +
             zeros(24) +
             "25000000"
             "26000000"
             "27000000"
             "28"
             "29"
             "0000"
             "2a" +
             zeros(19) +
             "2b"
             "01"
             "0000" +
             zeros(19) + "2c" + zeros(4) +
             "05000000"
             "0102030405" +
             zeros(3),
         false},
        {"delete session", kelm::delete_session(8), "1400000015000500" + id + "08000000", false},
        {"stats of one", kelm::get_stats(9, 0), "1800000019000500" + id + "0900000000000000",
         false},
        {"stats of one, cleared", kelm::get_stats(9, KELM_STATS_CLEAR),
         "1800000019000500" + id + "0900000001000000", true},
        {"all stats", kelm::get_stats(0, 0xc), "1800000019000500" + id + "000000000c000000", true},
        {"sync dump", kelm::sync(0), "180000001a000500" + id + "0000000000000000", true},
        {"mark", kelm::sync(KELM_SYNC_MARK), "180000001a000500" + id + "0000000001000000", false},
        {"debug level", kelm::set_debug_level(3, 0x0102, KELM_DEBUG_CLEAR_SESSIONS),
         "1c0000001c000500" + id + "030000000100000002010000", false},
        {"ready", kelm::tx_path_ready(), "140000001d000500" + id + "00000000", false},
        {"interval", kelm::set_stats_interval(65535), "180000001f000500" + id + "00000000ffff0000",
         false},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(kelm::encode(c.request, NLM_F_ACK, 0x01020304, 5), from_hex(c.hex)) << c.name;
        EXPECT_EQ(kelm::starts_dump(c.request), c.dump) << c.name;
    }
}

TEST(request, failure_message_is_a_whole_message)
{
    EXPECT_EQ(kelm::failure_message(0x1234), from_hex("140000001b000000"
                                                      "0000000000000000"
                                                      "34120000"));
}

std::vector<kelm::report> parse_all(kelm::byte_view datagram)
{
    std::vector<kelm::report> reports;
    kelm::message_reader reader(datagram);
    while (auto msg = reader.next())
        reports.push_back(kelm::parse_report(*msg));
    return reports;
}

kelm::bytes packet_change(uint32_t packet_len, uint32_t l3, uint32_t bfd, size_t bytes_there)
{
    kelm_msg_rx_packet_change head = {};
    head.header.discriminator = 5;
    head.ifindex = 6;
    head.member_ifindex = 7;
    head.l3_offset = l3;
    head.bfd_offset = bfd;
    head.packet_len = packet_len;
    return message(KELM_MSG_RX_PACKET_CHANGE, 0, 0,
                   bytes_of(head) + kelm::bytes(bytes_there, 0x55));
}

TEST(report, every_message_of_a_datagram_is_parsed)
{
    kelm_msg_rx_stats rx = {};
    rx.header.discriminator = 1;
    rx.num_received = 1ULL << 40;
    kelm_msg_tx_stats tx = {};
    tx.header.discriminator = 2;
    tx.sent_after_3p = 3;
    kelm_msg_module_stats module = {};
    module.seq_num = 4;
    const auto reports = parse_all(
        message(KELM_MSG_RX_STATS, 0, 0, bytes_of(rx)) +
        message(KELM_MSG_TX_STATS, 0, 0, bytes_of(tx)) +
        message(KELM_MSG_MODULE_STATS, 0, 0, bytes_of(module)) + packet_change(9, 3, 9, 9) +
        message(KELM_MSG_RX_SYNC, 0, 0, from_hex("0500000001000000")) +
        message(KELM_MSG_TX_SYNC, 0, 0, from_hex("06000000")) +
        message(KELM_MSG_SESSION_FAILURE, 0, 0, from_hex("07000000aabb")) +
        message(999, 0, 0, from_hex("cc")) + message(NLMSG_OVERRUN, 0, 0, {}));
    ASSERT_EQ(reports.size(), 9U);
    EXPECT_EQ(std::get<kelm_msg_rx_stats>(reports[0]).num_received, 1ULL << 40);
    EXPECT_EQ(std::get<kelm_msg_tx_stats>(reports[1]).sent_after_3p, 3U);
    EXPECT_EQ(std::get<kelm_msg_module_stats>(reports[2]).seq_num, 4U);
    const auto &change = std::get<kelm::packet_change>(reports[3]);
    EXPECT_EQ(change.discriminator, 5U);
    EXPECT_EQ(change.ifindex, 6U);
    EXPECT_EQ(change.member_ifindex, 7U);
    EXPECT_EQ(change.l3_offset, 3U);
    EXPECT_EQ(change.bfd_offset, 9U);
    EXPECT_EQ(change.frame, kelm::bytes(9, 0x55));
    EXPECT_EQ(std::get<kelm_msg_rx_sync>(reports[4]).timer_active, 1U);
    EXPECT_EQ(std::get<kelm_msg_tx_sync>(reports[5]).header.discriminator, 6U);
    EXPECT_EQ(std::get<kelm::session_failure>(reports[6]).discriminator, 7U);
    EXPECT_EQ(std::get<kelm::session_failure>(reports[6]).rest, from_hex("aabb"));
    EXPECT_EQ(std::get<kelm::unknown_message>(reports[7]).type, 999);
    EXPECT_TRUE(std::holds_alternative<kelm::overrun>(reports[8]));
}

TEST(report, packet_change_that_points_outside_its_frame_is_not_one)
{
    struct {
        uint32_t packet_len, l3, bfd;
        size_t there;
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
        const auto reports = parse_all(packet_change(c.packet_len, c.l3, c.bfd, c.there));
        ASSERT_EQ(reports.size(), 1U);
        EXPECT_EQ(std::holds_alternative<kelm::packet_change>(reports[0]), c.good)
            << c.packet_len << ' ' << c.l3 << ' ' << c.bfd << ' ' << c.there;
    }
}

TEST(report, body_too_short_for_its_type_is_kept_as_unknown)
{
    struct {
        uint16_t type;
        size_t size;
    } const cases[] = {
        {KELM_MSG_TX_STATS, 184},        {KELM_MSG_TX_SYNC, 4}, {KELM_MSG_RX_STATS, 168},
        {KELM_MSG_RX_PACKET_CHANGE, 24}, {KELM_MSG_RX_SYNC, 8}, {KELM_MSG_MODULE_STATS, 120},
        {KELM_MSG_SESSION_FAILURE, 4},
    };
    for (const auto &c : cases) {
        for (size_t size = 0; size <= c.size; size++) {
            const auto reports = parse_all(message(c.type, 0, 0, kelm::bytes(size)));
            ASSERT_EQ(reports.size(), 1U);
            EXPECT_EQ(std::holds_alternative<kelm::unknown_message>(reports[0]), size < c.size)
                << c.type << ' ' << size;
        }
    }
}

TEST(report, message_that_does_not_fit_ends_the_datagram)
{
    const kelm::bytes good = message(KELM_MSG_TX_SYNC, 0, 0, from_hex("06000000"));
    for (const uint32_t bad_length : {0U, 15U, 21U, 0x7fffffffU, 0xffffffffU, 0xfffffffdU}) {
        kelm::bytes bad = good;
        std::memcpy(bad.data(), &bad_length, sizeof bad_length);
        EXPECT_EQ(parse_all(good + bad).size(), 1U) << bad_length;
        EXPECT_EQ(parse_all(bad + good).size(), bad_length == 21 ? 1U : 0U) << bad_length;
    }
    for (size_t length = 0; length < good.size(); length++)
        EXPECT_TRUE(parse_all(kelm::byte_view(good).first(length)).empty()) << length;
    // The last message's padding may be missing.
    const kelm::bytes odd = message(999, 0, 0, from_hex("cc"));
    EXPECT_EQ(parse_all(kelm::byte_view(odd).first(17)).size(), 1U);
}

// Whatever arrives: only the sanitizers judge, and that every report has been paid for in bytes.
TEST(report, garbage_is_read_within_its_bounds)
{
    std::mt19937 random(20261122);
    for (int round = 0; round < 20'000; round++) {
        kelm::bytes datagram(random() % 300);
        for (auto &octet : datagram)
            octet = static_cast<uint8_t>(random());
        // A plausible header at the front gets the bytes behind it parsed.
        if (datagram.size() >= 6) {
            datagram[0] = static_cast<uint8_t>(random() % 64 * 4);
            datagram[1] = datagram[2] = datagram[3] = 0;
            datagram[4] = static_cast<uint8_t>(random() % 34);
            datagram[5] = 0;
        }
        datagram.shrink_to_fit();
        EXPECT_LE(parse_all(datagram).size() * sizeof(nlmsghdr), datagram.size());
    }
}

TEST(refused, says_what_was_wrong_and_what_to_do)
{
    const kelm::refused missing_link(KELM_MSG_RX_SET_SESSION, 5, ENXIO);
    EXPECT_EQ(missing_link.number(), ENXIO);
    EXPECT_STREQ(missing_link.what(),
                 "cannot set receive session 5: No such device or address (ENXIO): a transmit "
                 "packet that it should latch does not exist: set that packet first, then the "
                 "session again, which for now is configured but without this link and with its "
                 "detection timer untouched");
    EXPECT_TRUE(std::string_view(kelm::refused(KELM_MSG_GET_STATS, 5, ENOENT).what())
                    .starts_with("cannot get statistics of 5: No such file"));
    EXPECT_NE(kelm::explain(KELM_MSG_TX_SET_PACKET, EPERM).find("CAP_NET_ADMIN"),
              std::string::npos);
    // A request's own meaning comes before the general one.
    EXPECT_NE(kelm::explain(KELM_MSG_TX_DELETE_PACKET, EINVAL),
              kelm::explain(KELM_MSG_RX_DELETE_SESSION, EINVAL));
    EXPECT_EQ(kelm::explain(KELM_MSG_SYNC, EXDEV), "");
    EXPECT_STREQ(kelm::refused(99, 0, 12345).what(), "cannot send the request: error 12345");
}

} // namespace
