// SPDX-License-Identifier: GPL-2.0
//
// Socket buffers, the frames that are built in them, and checksums.
#include "sim_fixture.h"

#include "platform/checksum.h"
#include "platform/hosted/skbuff.h"

#include <cerrno>
#include <numeric>
#include <random>

namespace
{

using namespace sim;

bytes counted(std::size_t len)
{
    bytes result(len);
    std::iota(result.begin(), result.end(), std::uint8_t{0});
    return result;
}

bytes contents(const sk_buff *skb)
{
    const auto data = hosted::skb_bytes(skb);
    return {data.begin(), data.end()};
}

class skbuff : public testing::Test
{
  protected:
    world w{{.start = false}};
};

using skbuff_death = skbuff;

TEST_F(skbuff, put_and_push_grow_the_data_within_its_room)
{
    sk_buff *skb = hosted::skb_copy_bytes(counted(10), 6, GFP_KERNEL);
    EXPECT_EQ(skb_tailroom(skb), 0U);
    std::memset(skb_push(skb, 6), 0xee, 6);
    EXPECT_EQ(skb_data(skb), skb_head(skb));
    EXPECT_EQ(skb_len(skb), 16U);
    consume_skb(skb);

    skb = alloc_skb(8, GFP_KERNEL);
    EXPECT_EQ(skb_len(skb), 0U);
    std::memset(skb_put(skb, 3), 1, 3);
    EXPECT_EQ(skb_tailroom(skb), 5U);
    EXPECT_EQ(contents(skb), bytes(3, 1));
    kfree_skb(skb_get(skb));
    EXPECT_EQ(skb_len(skb), 3U); // the other reference is still there
    kfree_skb(skb);
    kfree_skb(nullptr);
}

TEST_F(skbuff, expansion_gives_room_at_both_ends_and_keeps_everything_else)
{
    sk_buff *skb = hosted::skb_copy_bytes(counted(20), 5, GFP_KERNEL);
    skb->mac_header = 1;
    skb->network_header = 3;
    sk_buff *clone = hosted::skb_clone(skb, GFP_KERNEL);
    ASSERT_EQ(pskb_expand_head(skb, 40, 7, GFP_ATOMIC), 0);
    EXPECT_EQ(contents(skb), counted(20));
    EXPECT_EQ(skb_data(skb) - skb_mac_header(skb), 4);
    EXPECT_EQ(skb_data(skb) - skb_network_header(skb), 2);
    EXPECT_EQ(skb_tailroom(skb), 7U);
    std::memset(skb_push(skb, 45), 0, 45);
    EXPECT_EQ(contents(clone), counted(20));
    consume_skb(clone);

    const bytes before = contents(skb);
    for (const service failing : {service::allocation, service::skb_reallocation}) {
        w.fail(failing, -ENOMEM);
        EXPECT_EQ(pskb_expand_head(skb, 40, 0, GFP_ATOMIC), -ENOMEM);
        EXPECT_EQ(contents(skb), before);
    }
    consume_skb(skb);
}

TEST_F(skbuff, linearize_cow_makes_data_contiguous_and_private)
{
    sk_buff *plain = hosted::skb_copy_bytes(counted(30), 4, GFP_KERNEL);
    const std::uint8_t *data = skb_data(plain);
    w.fail(service::skb_reallocation, -ENOMEM); // not asked for
    EXPECT_EQ(skb_linearize_cow(plain), 0);
    EXPECT_EQ(skb_data(plain), data);
    w.fail(service::skb_reallocation, 0);

    sk_buff *clone = hosted::skb_clone(plain, GFP_KERNEL);
    ASSERT_EQ(skb_linearize_cow(plain), 0);
    skb_data(plain)[0] = 0xff;
    EXPECT_EQ(contents(clone), counted(30));
    consume_skb(plain);

    for (const unsigned int keep : {0U, 1U, 29U, 30U}) {
        sk_buff *split = hosted::skb_copy_bytes(counted(30), 4, GFP_KERNEL);
        ASSERT_TRUE(hosted::skb_make_nonlinear(split, keep));
        EXPECT_EQ(skb_len(split), 30U);
        EXPECT_EQ(skb_tailroom(split), 0U);
        w.fail(service::allocation, -ENOMEM);
        EXPECT_EQ(skb_linearize_cow(split), -ENOMEM);
        EXPECT_EQ(skb_len(split), 30U);
        ASSERT_EQ(skb_linearize_cow(split), 0);
        EXPECT_EQ(contents(split), counted(30));
        EXPECT_EQ(skb_data(split) - skb_head(split), 4);
        consume_skb(split);
    }
    consume_skb(clone);
}

TEST_F(skbuff_death, running_over_the_room_ends_the_process)
{
    sk_buff *skb = hosted::skb_copy_bytes(counted(10), 2, GFP_KERNEL);
    EXPECT_DEATH(skb_put(skb, 1), "put beyond the tailroom");
    EXPECT_DEATH(skb_push(skb, 3), "push beyond the headroom");
    skb_get(skb);
    EXPECT_DEATH((void)pskb_expand_head(skb, 1, 0, GFP_ATOMIC), "others hold");
    kfree_skb(skb);
    kfree_skb(skb);
}

// RFC 1071, byte by byte.
std::uint16_t plain_checksum(const bytes &data)
{
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < data.size(); ++i)
        sum += i % 2 == 0 ? static_cast<std::uint32_t>(data[i]) << 8 : data[i];
    while (sum > 0xffff)
        sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<std::uint16_t>(~sum);
}

TEST(checksum, agrees_with_the_plain_sum_of_any_bytes)
{
    std::mt19937 random(1);
    for (int round = 0; round < 500; ++round) {
        bytes data(random() % 200);
        for (std::uint8_t &byte : data)
            byte = static_cast<std::uint8_t>(round % 3 == 0 ? 0xff : random());
        const auto len = static_cast<int>(data.size());
        // In one go, and chained at an even place.
        const int middle = len / 4 * 2;
        const std::uint32_t chained =
            csum_partial(data.data() + middle, len - middle, csum_partial(data.data(), middle, 0));
        for (const std::uint32_t sum : {csum_partial(data.data(), len, 0), chained}) {
            ASSERT_EQ(ntohs(csum_tcpudp_magic(0, 0, 0, 0, sum)), plain_checksum(data));
        }
    }
}

// The frame's IP header must be this one but for its checksum, and both checksums valid.
void expect_udp_frame(const hosted::udp_arrival &way, std::size_t link_len, std::size_t payload_len)
{
    const bytes payload = counted(payload_len);
    sk_buff *skb = hosted::udp_frame_skb(payload, way, link_len);
    const bool v4 = IN6_IS_ADDR_V4MAPPED(&way.source);
    const std::size_t ip_len = v4 ? 20 : 40;
    EXPECT_EQ(contents(skb), payload);
    EXPECT_EQ(skb_iif(skb), 3);
    EXPECT_EQ(skb_member_ifindex(skb), 4);
    EXPECT_EQ(skb_network_header(skb) - skb_mac_header(skb), static_cast<long>(link_len));
    EXPECT_EQ(skb_data(skb) - skb_network_header(skb), static_cast<long>(ip_len + 8));

    const std::uint8_t *ethertype = skb_network_header(skb) - 2;
    EXPECT_EQ(ethertype[0] << 8 | ethertype[1], v4 ? 0x0800 : 0x86dd);
    const bytes ip(skb_network_header(skb), skb_data(skb) + skb_len(skb));
    const std::span udp = std::span(ip).subspan(ip_len);
    const std::size_t length = v4 ? ip.size() : udp.size();
    const auto high = static_cast<std::uint8_t>(length >> 8);
    const auto low = static_cast<std::uint8_t>(length);
    bytes header{0x6c, 0, 0, 0, high, low, 17, 254};
    if (v4)
        header = {0x45, 0xc0, high, low, ip[4], ip[5], ip[6], ip[7], 254, 17, ip[10], ip[11]};
    bytes addresses;
    for (const in6_addr *address : {&way.source, &way.destination})
        append(addresses, std::span(address->s6_addr).subspan(v4 ? 12 : 0));
    append(header, addresses);
    EXPECT_EQ(bytes(ip.data(), udp.data()), header);
    EXPECT_TRUE(!v4 || plain_checksum(header) == 0);

    const bytes udp_len{static_cast<std::uint8_t>(udp.size() >> 8),
                        static_cast<std::uint8_t>(udp.size())};
    EXPECT_EQ(bytes(&udp[0], &udp[6]), (bytes{0xc0, 0, 0x12, 0xb0, udp_len[0], udp_len[1]}));
    bytes summed = addresses; // RFC 768's pseudo header comes first
    append(summed, bytes{0, 17, udp_len[0], udp_len[1]});
    append(summed, udp);
    EXPECT_EQ(plain_checksum(summed), 0);
    consume_skb(skb);
}

TEST_F(skbuff, udp_frame_has_valid_headers_at_the_positions_it_tells)
{
    hosted::udp_arrival way{.source = address("192.0.2.1"),
                            .destination = address("192.0.2.2"),
                            .source_port = 49152,
                            .destination_port = 4784,
                            .ttl = 254,
                            .tos = 0xc0,
                            .iif = 3,
                            .member_ifindex = 4};
    for (const std::size_t payload_len : {0U, 24U, 27U, 52U})
        for (const std::size_t link_len : {14U, 18U})
            expect_udp_frame(way, link_len, payload_len);
    way.source = address("2001:db8::1");
    way.destination = address("fe80::2");
    for (const std::size_t payload_len : {0U, 24U, 27U, 1400U})
        expect_udp_frame(way, 14, payload_len);
}

} // namespace
