// SPDX-License-Identifier: GPL-2.0
//
// One received datagram: what is dropped, what is accepted, and what the agent gets to see.
#include "engine_fixture.h"

namespace
{

using namespace sim;

struct rx_packet : engine_test {
    rx_packet() { EXPECT_EQ(set_debug_level(a, 2), 0); }

    // Delivers a datagram and counts the messages to the agent.
    std::size_t passed_up(const datagram &packet)
    {
        control.read_messages();
        EXPECT_TRUE(w.deliver(w.initial(), packet));
        return control.read_messages().size();
    }

    // Why the packet was passed up: the end of a log line; "" if it was not.
    std::string reason(const datagram &packet)
    {
        w.clear_log();
        const std::size_t passed = passed_up(packet);
        for (const log_line &line : w.log()) {
            const std::size_t at = line.text.find("Passing up - ");
            if (at != std::string::npos) {
                EXPECT_EQ(passed, 1U);
                return line.text.substr(at + 13);
            }
        }
        EXPECT_EQ(passed, 0U);
        return "";
    }

    // The next datagram that kelm itself sends, with this authentication, as it arrives.
    datagram own_packet(std::uint8_t auth_type, std::uint8_t key_id = test_key_id)
    {
        outgoing packet{.payload = with_section({.my_discriminator = 77}, auth_section(auth_type))};
        packet.payload[BFD_AUTH_OFFSET + 2] = key_id;
        EXPECT_EQ(path_ready(a), 0);
        EXPECT_EQ(set(a, 1, packet, tx{.flags = KELM_TX_SEND_OOB}), 0);
        const frame sent = next_frame(1);
        const auto bfd = bfd_in(sent.data);
        datagram result;
        result.payload.assign(bfd.begin(), bfd.end());
        return result;
    }

    agent &control = w.open_agent(w.initial(), {.groups = control_group});
};

TEST_F(rx_packet, packet_change_carries_the_frame)
{
    constexpr struct shape {
        const char *host;
        std::uint32_t link_len; // 18: with a VLAN tag
        std::size_t extra;      // bytes behind the packet
        buffer_form form = buffer_form::linear;
        std::uint32_t linear_len = 0;
    } shapes[] = {
        {"10.0.0.2", 14, 0},
        {"10.0.0.2", 18, 0},
        {"10.0.0.2", 0, 0},
        {"10.0.0.2", 14, 9000},
        {"fe80::2", 18, 1},
        {"fe80::2", 14, 0, buffer_form::fragmented, 0},
        {"10.0.0.2", 14, 70, buffer_form::fragmented, 1},
        {"10.0.0.2", 14, 0, buffer_form::fragmented, 23},
        {"10.0.0.2", 14, 0, buffer_form::fragmented, 24},
        {"fe80::2", 18, 5, buffer_form::cloned, 0},
    };
    for (const shape &each : shapes) {
        for (const bool with_session : {true, false}) {
            SCOPED_TRACE(testing::Message() << each.host << " link " << each.link_len << " extra "
                                            << each.extra << " session " << with_session);
            if (with_session) {
                ASSERT_EQ(set_session(a, own_disc, rx{}), 0);
            }
            datagram packet = arriving({});
            packet.payload.insert(packet.payload.end(), each.extra, 0xcc);
            packet.source = packet.destination = address(each.host);
            packet.link_len = each.link_len;
            packet.form = each.form;
            packet.linear_len = each.linear_len;
            packet.ifindex = 0x01020304;
            packet.member_ifindex = 0x05060708;
            ASSERT_TRUE(w.deliver(w.initial(), packet));
            const std::optional<bytes> message = control.read();
            ASSERT_TRUE(message.has_value());
            EXPECT_EQ(control.read(), std::nullopt);

            const std::uint32_t bfd = each.link_len + (each.host[0] == '1' ? 20 : 40) + 8;
            const auto len = static_cast<std::uint32_t>(bfd + packet.payload.size());
            const nlmsghdr header{16 + 24 + len, KELM_MSG_RX_PACKET_CHANGE, 0, 0, 0};
            const kelm_msg_rx_packet_change head{{own_disc},    0x01020304, 0x05060708,
                                                 each.link_len, bfd,        len};
            ASSERT_EQ(message->size(), header.nlmsg_len);
            const std::span body(*message);
            EXPECT_EQ(hex(body.first(16)), hex(as_bytes(header)));
            EXPECT_EQ(hex(body.subspan(16, 24)), hex(as_bytes(head).first(24)));
            EXPECT_EQ(body[40 + each.link_len] >> 4, each.host[0] == '1' ? 4 : 6);
            EXPECT_EQ(hex(body.subspan(40 + bfd)), hex(packet.payload));
            EXPECT_EQ(delete_session(a, own_disc), with_session ? 0 : -ENOENT);
        }
    }
}

TEST_F(rx_packet, packets_without_a_session_are_passed_up_if_they_are_valid)
{
    EXPECT_EQ(reason(arriving({.your_discriminator = 0, .state = BFD_STATE_UP})), "");
    EXPECT_EQ(w.logged("kelm Rx: Packet failed RFC validation"), 1U);
    EXPECT_EQ(module_stats(a).rfc_drops, 1U);
    for (const std::uint8_t state : bytes{BFD_STATE_DOWN, BFD_STATE_ADMIN_DOWN})
        EXPECT_EQ(reason(arriving({.your_discriminator = 0, .state = state})), "discriminator==0");
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(reason(arriving({.your_discriminator = 0xfffffffe})), "no session 4294967294");
}

TEST_F(rx_packet, only_what_the_state_machine_must_see_is_passed_up)
{
    ASSERT_EQ(set_session(a, own_disc, rx{}), 0);
    datagram packet = arriving({});
    EXPECT_EQ(reason(packet), "66 != 0");
    EXPECT_EQ(reason(packet), "");
    // Every bit of the mandatory section that leaves the packet valid, and back again. A changed
    // Poll or Final bit is a change of content first.
    for (std::size_t bit = 0; bit < 8 * BFD_CTRL_LEN; ++bit) {
        const bool other_session = bit / 32 == 2;
        const bool invalid = (bit < 8 && bit >= 5) || bit == 8 || bit == 10 || bit / 8 == 3;
        if (other_session || invalid)
            continue;
        datagram changed = packet;
        changed.payload[bit / 8] ^= static_cast<std::uint8_t>(1 << bit % 8);
        EXPECT_EQ(reason(changed), "content changed") << bit;
        EXPECT_EQ(reason(changed), bit == 13   ? "poll bit set"
                                   : bit == 12 ? "final bit set"
                                               : "")
            << bit;
        EXPECT_EQ(reason(packet), "content changed") << bit;
    }
    packet.member_ifindex = 7;
    EXPECT_EQ(reason(packet), "member link changed");
    EXPECT_EQ(reason(packet), "");
    packet.ifindex = 99; // neither interface nor addresses count
    packet.source = address("10.9.9.9");
    packet.ttl = 3;
    packet.port = 4784;
    EXPECT_EQ(reason(packet), "");
    packet.link_len = 18;
    EXPECT_EQ(reason(packet), "70 != 66");
    EXPECT_EQ(reason(packet), "");
    packet.payload.push_back(0);
    EXPECT_EQ(reason(packet), "71 != 70");
    packet.payload.back() = 1; // behind the control packet
    EXPECT_EQ(reason(packet), "");
    packet.payload.pop_back();
    EXPECT_EQ(reason(packet), "70 != 71");
    packet.member_ifindex = 0;
    EXPECT_EQ(reason(packet), "member link changed");
}

// Frames of one length, whose headers are longer or shorter.
TEST_F(rx_packet, stored_frame_may_have_its_packet_elsewhere)
{
    ASSERT_EQ(set_session(a, own_disc, rx{}), 0);
    datagram first = arriving({}), second = first;
    first.link_len = 18;
    EXPECT_EQ(reason(first), "70 != 0");
    second.payload.insert(second.payload.end(), first.link_len - second.link_len, 0xcc);
    EXPECT_EQ(reason(second), "");
    second.payload[0] ^= 1;
    EXPECT_EQ(reason(second), "content changed");
    EXPECT_EQ(reason(first), "content changed");
    // With authentication two bytes more count than the stored frame has.
    datagram third;
    third.payload = with_section({}, auth_section(BFD_AUTH_PASSWORD));
    first.link_len = third.link_len + third.payload.size() - BFD_CTRL_LEN;
    EXPECT_EQ(reason(first), "75 != 70");
    ASSERT_EQ(set_session(a, own_disc, rx{.auth_type = BFD_AUTH_PASSWORD}), 0);
    EXPECT_EQ(reason(third), "content changed");
    EXPECT_EQ(reason(third), "");
}

// The stamp counts as 0 wherever packets are compared, and in what is passed up but for a first
// one.
TEST_F(rx_packet, time_stamp_in_our_own_returning_packets_is_no_change)
{
    ASSERT_EQ(set_session(a, own_disc, rx{.flags = KELM_RX_MYDISC_RTT}), 0);
    auto returned = [this, stamp = 77U](std::uint8_t flags = 0) mutable {
        datagram packet = arriving({.my_discriminator = ++stamp, .flags = flags});
        packet.form = buffer_form::cloned;
        EXPECT_TRUE(w.deliver(w.initial(), packet));
        const std::vector<message> messages = control.read_messages();
        return messages.empty() ? "" : hex(std::span(messages[0].body).subspan(24 + 42 + 4, 4));
    };
    EXPECT_EQ(returned(), "0000004e");
    EXPECT_EQ(returned(), "00000000"); // a change, once
    EXPECT_EQ(returned(), "");
    EXPECT_EQ(returned(BFD_FLAG_POLL), "00000000");
    EXPECT_EQ(rx_stats(a, own_disc)->num_received, 4U);
}

TEST_F(rx_packet, what_kelm_sends_kelm_accepts_unless_a_bit_is_wrong)
{
    for (const std::uint8_t type : bytes{1, 2, 3, 4, 5}) {
        SCOPED_TRACE(int{type});
        kelm_msg_rx_set_session two_keys = rx{.auth_type = type};
        two_keys.auth_key[0] = two_keys.auth_key[1];
        two_keys.auth_key[0].key_id = test_key_id + 1;
        ASSERT_EQ(set_session(a, own_disc, two_keys), 0);
        datagram bad = own_packet(type);
        bad.payload.back() ^= 1;
        bad.form = buffer_form::cloned; // the digest is computed in place
        EXPECT_EQ(reason(bad), "");
        EXPECT_EQ(rx_stats(a, own_disc)->num_auth_fail, 1U);
        const datagram good = own_packet(type);
        EXPECT_EQ(reason(good), std::to_string(42 + good.payload.size()) + " != 0");
        // A later one with another key: neither key id nor number nor digest is a change.
        EXPECT_EQ(reason(own_packet(type, test_key_id + 1)), "");
        EXPECT_EQ(rx_stats(a, own_disc)->num_received, 2U);
        if (type == BFD_AUTH_METICULOUS_MD5) { // another type of the same length is a change
            ASSERT_EQ(set_session(a, own_disc, rx{.auth_type = BFD_AUTH_KEYED_MD5}), 0);
            EXPECT_EQ(reason(own_packet(BFD_AUTH_KEYED_MD5)), "content changed");
        }
        ASSERT_EQ(delete_session(a, own_disc), 0);
        ASSERT_EQ(delete_packet(a, 1), 0);
    }
}

TEST_F(rx_packet, numbers_of_a_meticulous_peer_stay_within_the_session_s_multiplier)
{
    ASSERT_EQ(set_session(a, own_disc, rx{.multiplier = 5, .auth_type = BFD_AUTH_METICULOUS_SHA1}),
              0);
    std::vector<datagram> numbered; // with a multiplier of 3
    while (numbered.size() <= 106)
        numbered.push_back(own_packet(BFD_AUTH_METICULOUS_SHA1));
    for (const std::size_t number : {100U, 106U, 105U})
        ASSERT_TRUE(w.deliver(w.initial(), numbered[number]));
    EXPECT_EQ(rx_stats(a, own_disc)->num_received, 2U);
    EXPECT_EQ(w.logged("seqnum failed received 106 expected > 100 and <= 105"), 1U);
}

TEST_F(rx_packet, a_forged_sequence_number_locks_the_peer_out_unless_kelm_is_strict)
{
    const datagram genuine = own_packet(BFD_AUTH_KEYED_SHA1);
    datagram forged = genuine;
    forged.payload[BFD_AUTH_OFFSET + offsetof(bfd_auth_sha1, seq_num)] = 0xff;
    const rx session{.auth_type = BFD_AUTH_KEYED_SHA1};
    const auto received_after_the_forged = [&] {
        EXPECT_EQ(set_session(a, own_disc, session), 0);
        EXPECT_TRUE(w.deliver(w.initial(), forged));
        EXPECT_TRUE(w.deliver(w.initial(), genuine));
        const std::uint64_t received = rx_stats(a, own_disc)->num_received;
        EXPECT_EQ(delete_session(a, own_disc), 0);
        return received;
    };
    EXPECT_EQ(received_after_the_forged(), 0U);
    const strict_mode strict;
    EXPECT_EQ(received_after_the_forged(), 1U);
}

TEST_F(rx_packet, strangers_do_not_flood_the_agent_if_kelm_is_strict)
{
    constexpr std::uint64_t burst = 4096, ticks = 10, more = 4 * ticks;
    ASSERT_EQ(set_session(a, own_disc, rx{}), 0);
    const auto passed_up_of = [&](std::uint64_t strangers) {
        std::uint64_t heard = 0;
        for (std::uint64_t i = 0; i < strangers; ++i)
            heard += passed_up(
                arriving({.your_discriminator = i % 2 == 0 ? 0U : 77U, .state = BFD_STATE_DOWN}));
        return heard;
    };
    EXPECT_EQ(passed_up_of(burst + more), burst + more);
    const strict_mode strict;
    EXPECT_EQ(passed_up_of(burst + 1000), burst);
    EXPECT_EQ(passed_up(arriving({})), 1U); // its own is not counted
    w.advance(ticks);
    EXPECT_EQ(passed_up_of(1000), more);
    const kelm_msg_module_stats stats = module_stats(a);
    EXPECT_EQ(stats.num_not_passed_up, 1000 + 1000 - more);
    EXPECT_EQ(stats.num_passup_disc_0 + stats.num_invalid_sessions, 2 * burst + more + 2000);
    EXPECT_EQ(stats.strict, 1);
}

TEST_F(rx_packet, what_the_library_tells_is_logged_at_level_2_or_3)
{
    for (std::uint16_t level = 1; level <= 3; ++level) {
        ASSERT_EQ(set_debug_level(a, level), 0);
        ASSERT_EQ(set_session(a, own_disc,
                              rx{.auth_type = BFD_AUTH_KEYED_MD5, .auth_flags = KELM_AUTH_TTL_255}),
                  0);
        w.clear_log();
        ASSERT_TRUE(w.deliver(w.initial(), own_packet(BFD_AUTH_KEYED_MD5)));
        EXPECT_EQ(w.logged("kelm Tx (77): Tx seqnum 98"), level >= 2 ? 1U : 0U) << level;
        EXPECT_EQ(w.logged("kelm Rx (5): Rx seqnum 98"), level >= 2 ? 1U : 0U) << level;
        EXPECT_EQ(w.logged("kelm Rx (5): ip ttl 255"), level >= 3 ? 1U : 0U) << level;
    }
}

TEST_F(rx_packet, type_ttl_and_interface_admit_a_packet)
{
    const struct admission {
        rx session;
        std::uint8_t ttl;
        int ifindex;
        std::uint8_t packet_auth;
        bool accepted;
    } cases[] = {
        {rx{}, 1, 2, 0, true},
        {rx{.auth_flags = KELM_AUTH_TTL_255}, 255, 2, 0, true},
        {rx{.auth_flags = KELM_AUTH_TTL_255}, 254, 2, 0, false},
        {rx{.auth_flags = KELM_AUTH_TTL_254}, 254, 2, 0, true},
        {rx{.auth_flags = KELM_AUTH_TTL_254}, 255, 2, 0, false},
        {rx{.auth_flags = KELM_AUTH_TTL_254 | KELM_AUTH_TTL_255}, 255, 2, 0, false},
        {rx{.auth_ifindex = 2}, 255, 2, 0, true},
        {rx{.auth_ifindex = 2}, 255, 3, 0, false},
        {rx{.auth_type = BFD_AUTH_PASSWORD}, 255, 2, BFD_AUTH_PASSWORD, true},
        {rx{.auth_type = BFD_AUTH_PASSWORD}, 255, 2, 0, false},
        {rx{.auth_type = BFD_AUTH_KEYED_MD5}, 255, 2, BFD_AUTH_PASSWORD, false},
    };
    for (const admission &each : cases) {
        for (const char *host : {"10.0.0.2", "fe80::2"}) {
            SCOPED_TRACE(testing::Message() << &each - cases << " from " << host);
            ASSERT_EQ(set_session(a, own_disc, each.session), 0);
            datagram packet;
            packet.payload = with_section({}, auth_section(each.packet_auth));
            packet.source = packet.destination = address(host);
            packet.ttl = each.ttl;
            packet.ifindex = each.ifindex;
            EXPECT_EQ(reason(packet) != "", each.accepted);
            EXPECT_EQ(w.logged("kelm Rx (5): Packet failed auth check"), each.accepted ? 0U : 1U);
            const kelm_msg_rx_stats stats = *rx_stats(a, own_disc);
            EXPECT_EQ(stats.num_auth_fail, each.accepted ? 0U : 1U);
            const bool other_type =
                each.packet_auth != 0 && each.packet_auth != each.session.auth_type;
            EXPECT_EQ(stats.num_auth_type_mismatch, other_type ? 1U : 0U);
            EXPECT_EQ(stats.num_received, each.accepted ? 1U : 0U);
            ASSERT_EQ(delete_session(a, own_disc), 0);
        }
    }
}

TEST_F(rx_packet, without_memory_a_packet_counts_and_is_not_passed_up)
{
    ASSERT_EQ(set_session(a, own_disc, rx{.auth_type = BFD_AUTH_PASSWORD}), 0);
    // Longer than what needs no memory besides the session's.
    const auto long_packet = [](const control_packet &header) {
        datagram packet = arriving(header);
        packet.payload = with_section(header, auth_section(BFD_AUTH_PASSWORD));
        packet.link_len = 64;
        return packet;
    };
    const auto passed_up_without = [this](service failing, const datagram &packet) {
        w.fail(failing, -ENOMEM);
        return passed_up(packet);
    };
    // No copy: the next packet tries again.
    EXPECT_EQ(passed_up_without(service::allocation, long_packet({})), 0U);
    // No headroom: the copy is there, so that the next one is no change.
    EXPECT_EQ(passed_up_without(service::skb_reallocation, long_packet({})), 0U);
    EXPECT_EQ(w.logged("kelm Rx: failed to expand skb -12"), 1U);
    EXPECT_EQ(passed_up(long_packet({})), 0U);
    EXPECT_EQ(module_stats(a).pskb_expand_fail, 0U);
    // A failed copy forgets the old one.
    const datagram changed = long_packet({.state = BFD_STATE_INIT});
    EXPECT_EQ(passed_up_without(service::allocation, changed), 0U);
    EXPECT_EQ(names(sync_dump(a).messages), strings{"rx_sync 5"});
    EXPECT_EQ(passed_up(changed), 1U);

    // Without a session, the vrf counts.
    const datagram unknown = arriving({.your_discriminator = 6});
    EXPECT_EQ(passed_up_without(service::skb_reallocation, unknown), 0U);
    // What cannot be read in one piece is dropped before anything else, validation included.
    datagram scattered = arriving({});
    scattered.form = buffer_form::fragmented;
    for (const std::size_t len : {24U, 10U}) {
        scattered.payload.resize(len);
        EXPECT_EQ(passed_up_without(service::skb_reallocation, scattered), 0U);
    }
    EXPECT_EQ(module_stats(a).pskb_expand_fail, 3U);
    EXPECT_EQ(module_stats(a).rfc_drops, 0U);
    const kelm_msg_rx_stats stats = *rx_stats(a, own_disc);
    EXPECT_EQ(stats.packet_alloc_fail, 2U);
    EXPECT_EQ(stats.pskb_expand_fail, 1U);
    EXPECT_EQ(stats.num_passup, 4U);
    EXPECT_EQ(stats.num_received, 5U);
}

} // namespace
