// SPDX-License-Identifier: GPL-2.0
//
// Setting and deleting transmit packets: what is refused, in which order, and what a request
// that fails half way leaves behind.
#include "engine_fixture.h"

namespace
{

using namespace sim;

struct tx_config : engine_test {
    tx_config()
    {
        EXPECT_EQ(set_debug_level(a, 2), 0);
        w.clear_log();
    }

    int set_body(const bytes &body) { return ask(a, KELM_MSG_TX_SET_PACKET, body); }

    // The same, while one allocation fails. Two make the request's buffer, the next ones are a new
    // packet's record and a packet's bytes.
    int set_without(std::uint64_t allocation, const bytes &body)
    {
        w.fail(service::allocation, -ENOMEM, allocation);
        return set_body(body);
    }
};

// Too long for a packet's own room.
constexpr std::size_t long_link = 45;

// An authenticated packet, of which the fixed part and the bytes can be spoilt.
struct parts {
    explicit parts(std::uint8_t auth_type = BFD_AUTH_METICULOUS_SHA1)
        : packet(authenticated(auth_type).encode()),
          fixed(read_as<kelm_msg_tx_set_packet>(
              set_request(engine_test::own_disc, authenticated(auth_type))))
    {
    }

    [[nodiscard]] bytes body() const
    {
        bytes result = to_bytes(fixed);
        append(result, packet);
        return result;
    }

    bytes packet;
    kelm_msg_tx_set_packet fixed;
};

TEST_F(tx_config, refusals_come_in_order_and_change_nothing)
{
    // In the order of the checks.
    constexpr struct {
        void (*spoil)(parts &);
        int error;
        const char *line; // that only this refusal logs
    } refusals[] = {
        {[](parts &p) { p.fixed.header.discriminator = 0; }, -EINVAL, nullptr},
        {[](parts &p) { p.fixed.type = 2; }, -EAFNOSUPPORT, nullptr},
        {[](parts &p) { p.fixed.auth.type = BFD_AUTH_NONE; }, -EINVAL,
         "kelm Tx (5): auth_header_len 0 less than bfd_auth_password len 3"},
        {[](parts &p) { p.packet.resize(++p.fixed.packet_len); }, -EINVAL,
         "kelm Tx (5): Packet size incorrect for auth type 5. 81 vs 80. Disc 5"},
        {[](parts &p) { p.fixed.period = 0; }, -EINVAL,
         "kelm Tx: Zero period is no longer supported (5)"},
        {[](parts &p) { p.fixed.ip_hdr_offset = 1; }, -EINVAL, nullptr},
    };
    const std::size_t memory = w.memory_in_use();
    for (const auto &first : refusals) { // everything is wrong that is checked from here on
        SCOPED_TRACE(&first - refusals);
        parts p;
        for (const auto *each = &first; each != std::end(refusals); ++each)
            each->spoil(p);
        w.clear_log();
        EXPECT_EQ(set_body(p.body()), first.error);
        for (const auto &each : refusals)
            EXPECT_EQ(each.line != nullptr && w.logged(each.line) == 1,
                      &each == &first && first.line != nullptr);
        EXPECT_EQ(w.logged("Returning"), 0U);
        EXPECT_TRUE(sync_dump(a).messages.empty());
        EXPECT_EQ(w.memory_in_use(), memory);
    }
    EXPECT_EQ(set_body(parts().body()), 0);
    EXPECT_EQ(w.logged("kelm Tx (5): Returning 0"), 1U);
}

TEST_F(tx_config, the_packet_ends_where_its_authentication_section_does)
{
    for (const std::uint8_t type : bytes{0, 1, 2, 3, 4, 5, 6, 254, 255}) {
        for (const std::uint8_t a_bit : bytes{0, BFD_FLAG_AUTH_PRESENT}) {
            for (const int extra : {-1, 0, 1}) {
                parts p(type);
                p.fixed.auth.type = type;
                std::uint8_t &flags = p.packet[p.fixed.latch_offset + 1];
                flags = static_cast<std::uint8_t>((flags & ~BFD_FLAG_AUTH_PRESENT) | a_bit);
                p.packet.resize(p.packet.size() + static_cast<std::size_t>(extra));
                p.fixed.packet_len = static_cast<std::uint32_t>(p.packet.size());
                const bool fits = extra == 0 && (section_len(type) != 0 || a_bit == 0);
                EXPECT_EQ(set_body(p.body()), fits ? 0 : -EINVAL)
                    << "type " << +type << " A bit " << +a_bit << " extra " << extra;
            }
        }
    }
    parts without_password(BFD_AUTH_PASSWORD);
    without_password.fixed.auth_hdr.password.password[0] = 0;
    without_password.fixed.packet_len -= 6;
    without_password.packet.resize(without_password.fixed.packet_len);
    EXPECT_EQ(set_body(without_password.body()), -EINVAL);
    for (std::size_t len = 0; len <= 17; ++len) { // of a password
        bytes section = {BFD_AUTH_PASSWORD, static_cast<std::uint8_t>(3 + len), test_key_id};
        section.insert(section.end(), len, 'x');
        EXPECT_EQ(set(a, own_disc, {.payload = with_section({}, section)}),
                  len >= 1 && len <= 16 ? 0 : -EINVAL)
            << len;
    }
}

// Every place for the two headers, in packets all of whose bytes are the same, so that an IP
// header of that version begins anywhere. What is accepted is sent, too, with everything in it
// edited that can be.
TEST_F(tx_config, headers_lie_in_front_of_each_other_inside_the_packet)
{
    ASSERT_EQ(path_ready(a), 0);
    const auto expect_right = [this](std::uint8_t filler, std::uint16_t type,
                                     std::uint32_t latch_offset, std::uint32_t ip_offset) {
        parts p;
        p.packet.assign(latch_offset + BFD_CTRL_LEN, filler);
        p.fixed = {};
        p.fixed.header.discriminator = own_disc;
        p.fixed.type = type;
        p.fixed.flags = KELM_TX_SEND_OOB | KELM_TX_MYDISC_RTT;
        p.fixed.period = 1000;
        p.fixed.ip_hdr_offset = ip_offset;
        p.fixed.latch_offset = latch_offset;
        p.fixed.packet_len = static_cast<std::uint32_t>(p.packet.size());
        const std::uint32_t headers_len = (filler == 0x40 ? 20 : 40) + 8;
        const bool fits = ip_offset + headers_len <= latch_offset;
        ASSERT_EQ(set_body(p.body()), fits ? 0 : -EINVAL)
            << "version " << filler / 16 << " type " << type << " latch_offset " << latch_offset
            << " ip_hdr_offset " << ip_offset;
        if (fits) {
            EXPECT_FALSE(sent_during(1).empty());
        }
    };
    for (const std::uint8_t filler : bytes{0x40, 0x60})
        for (const std::uint16_t type : {KELM_TX_SESSION_IP, KELM_TX_SESSION_L2})
            for (std::uint32_t latch_offset = 0; latch_offset <= 70; ++latch_offset)
                for (std::uint32_t ip_offset = 0; ip_offset <= 70; ++ip_offset)
                    expect_right(filler, type, latch_offset, ip_offset);
    EXPECT_EQ(tx_stats(a, own_disc)->num_tx_errors, 0U);
}

TEST_F(tx_config, an_ip_packet_begins_with_its_header_and_no_offset_wraps_around)
{
    // An IPv6 header would not fit at the start, though the IPv4 header of the checksum does.
    parts p(BFD_AUTH_NONE);
    p.packet.insert(p.packet.begin(), 4, 0x60);
    p.fixed.packet_len += 4;
    p.fixed.latch_offset += 4;
    p.fixed.ip_hdr_offset = 4;
    EXPECT_EQ(set_body(p.body()), -EINVAL);
    p.fixed.type = KELM_TX_SESSION_L2;
    EXPECT_EQ(set_body(p.body()), 0);
    for (const std::uint32_t ip_offset : {13U, 0x80000000U, 0xfffffff7U, 0xffffffffU}) {
        p.fixed.ip_hdr_offset = ip_offset;
        EXPECT_EQ(set_body(p.body()), -EINVAL) << ip_offset;
    }
    for (const std::uint32_t latch_offset : {0xffffffe7U, 0xffffffe8U, 0xfffffff8U, 0xffffffffU}) {
        parts wrapping(BFD_AUTH_NONE);
        wrapping.fixed.latch_offset = latch_offset;
        wrapping.fixed.packet_len = latch_offset + BFD_CTRL_LEN; // modulo 2^32
        wrapping.packet.resize(std::min(wrapping.fixed.packet_len, 4096U));
        EXPECT_EQ(set_body(wrapping.body()), -EINVAL) << latch_offset;
    }
}

TEST_F(tx_config, without_memory_for_its_bytes_a_new_packet_stays_empty_until_set_again)
{
    const std::size_t memory = w.memory_in_use();
    const bytes body = set_request(own_disc, {.link_len = long_link});
    EXPECT_EQ(set_without(3, body), -ENOMEM);
    EXPECT_EQ(tx_stats(a, own_disc), std::nullopt);
    EXPECT_EQ(w.memory_in_use(), memory);
    EXPECT_EQ(set_without(4, body), -ENOMEM);
    EXPECT_EQ(set_without(4, set_request(own_disc + 1, {.link_len = long_link})), -ENOMEM);
    EXPECT_EQ(w.logged("Failed to allocate packet data"), 2U);
    // The records are there, and count as empty when they are to be sent.
    EXPECT_EQ(path_ready(a), 0);
    EXPECT_EQ(w.timers(), 0U);
    EXPECT_EQ(tx_stats(a, own_disc)->num_empty_packets, 1U);
    EXPECT_EQ(w.logged("No packet to send!"), 2U);
    EXPECT_EQ(w.logged("kelm: tx_trigger attempted release from callback"), 1U);
    EXPECT_EQ(set_body(body), 0);
    EXPECT_EQ(sent_during(interval_ticks).size(), 1U);
}

// A failed set leaves new settings beside the old, shorter bytes. Whatever the new offsets and
// authentication are, and with a latch to be applied on top, nothing outside the bytes is touched
// and nothing half-edited is sent.
TEST_F(tx_config, new_offsets_beside_old_bytes_are_harmless)
{
    ASSERT_EQ(path_ready(a), 0);
    const auto expect_harmless = [this](std::size_t link_len, std::uint8_t auth_type, bool v6,
                                        bool latch) {
        SCOPED_TRACE(testing::Message() << "link " << link_len << " auth " << int{auth_type}
                                        << " v6 " << v6 << " latch " << latch);
        const outgoing old{.link_len = long_link};
        ASSERT_EQ(set(a, own_disc, old, tx{.period = 10'000}), 0);
        outgoing longer = authenticated(auth_type);
        longer.link_len = link_len;
        if (v6)
            longer.source = longer.destination = address("fe80::1");
        const tx fixed{.period = 20'000, .flags = KELM_TX_MYDISC_RTT, .latch_period = 20'000};
        ASSERT_EQ(set_without(3, set_request(own_disc, longer, fixed)), -ENOMEM);
        if (latch) {
            const rx instantly{.multiplier = 1, .period = 1000, .latch = {own_disc}};
            ASSERT_EQ(set_session(a, own_disc, instantly), 0);
            w.advance(2);
            ASSERT_EQ(delete_session(a, own_disc), 0);
        }
        const std::uint64_t errors = tx_stats(a, own_disc)->num_tx_errors;
        // The old bytes hold what fits an IPv4 datagram without a section.
        const bool fits = link_len == long_link && !v6;
        EXPECT_EQ(sent_during(50).size() >= 2, fits);
        EXPECT_EQ(w.frames().empty(), !fits);
        const auto stats = *tx_stats(a, own_disc);
        EXPECT_EQ(stats.num_latch_errors, latch && !fits ? 1U : 0U);
        EXPECT_EQ(stats.num_tx_errors + stats.num_latch_errors > errors, !fits);
        for (const frame &each : w.frames()) {
            ASSERT_EQ(each.data.size(), old.encode().size());
            EXPECT_TRUE(udp_checksum_right({each.data.begin() + long_link, each.data.end()}));
        }
        // The next set makes all well again.
        ASSERT_EQ(set(a, own_disc, longer, fixed), 0);
        EXPECT_FALSE(sent_during(25).empty());
        EXPECT_EQ(delete_packet(a, own_disc), 0);
        w.advance(25);
        EXPECT_EQ(w.timers(), 0U);
    };
    for (const std::size_t more : {0U, 1U, 4U, 14U, 1000U})
        for (const std::uint8_t auth_type : bytes{0, 1, 3, 4, 5, 255})
            for (const bool v6 : {false, true})
                for (const bool latch : {false, true})
                    expect_harmless(long_link + more, auth_type, v6, latch);
}

} // namespace
