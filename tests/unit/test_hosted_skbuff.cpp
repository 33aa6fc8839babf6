// SPDX-License-Identifier: GPL-2.0
//
// Socket buffers, the frames that are built in them, and checksums.
#include "sim_fixture.h"

#include "platform/checksum.h"
#include "platform/clock.h"
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

TEST_F(skbuff, a_room_limit_counts_once_there_is_data)
{
    sk_buff *skb = alloc_skb(1000, GFP_KERNEL);
    skb->room_limit = 100;
    EXPECT_EQ(skb_tailroom(skb), 1000U);
    skb_put(skb, 30);
    EXPECT_EQ(skb_tailroom(skb), 70U);
    skb_put(skb, 470);
    EXPECT_EQ(skb_tailroom(skb), 0U);
    consume_skb(skb);
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

    for (std::uint64_t kind = 0; kind < 2; ++kind) {
        w.fail(kind == 0 ? service::allocation : service::skb_reallocation, -ENOMEM);
        const bytes before = contents(skb);
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

TEST_F(skbuff, an_allocation_that_fails_halfway_leaves_nothing)
{
    for (std::uint64_t nth = 1; nth <= 2; ++nth) {
        w.fail(service::allocation, -ENOMEM, nth);
        EXPECT_EQ(alloc_skb(100, GFP_KERNEL), nullptr);
        EXPECT_EQ(w.memory_in_use(), 0U);
    }
}

TEST_F(skbuff_death, running_over_the_room_ends_the_process)
{
    sk_buff *skb = hosted::skb_copy_bytes(counted(10), 2, GFP_KERNEL);
    EXPECT_DEATH(skb_put(skb, 1), "put beyond the tailroom");
    EXPECT_DEATH(skb_push(skb, 3), "push beyond the headroom");
    skb_get(skb);
    EXPECT_DEATH((void)pskb_expand_head(skb, 1, 0, GFP_ATOMIC), "others hold");
    kfree_skb(skb);
    ASSERT_TRUE(hosted::skb_make_nonlinear(skb, 5));
    EXPECT_DEATH(skb_put(skb, 1), "put beyond the tailroom");
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

// UDP's checksum of an IP datagram, of which the header has header_len bytes.
std::uint16_t plain_udp_checksum(std::span<const std::uint8_t> datagram, std::size_t header_len)
{
    const std::size_t addresses = header_len == 20 ? 12 : 8;
    bytes summed(datagram.begin() + static_cast<std::ptrdiff_t>(addresses),
                 datagram.begin() + static_cast<std::ptrdiff_t>(header_len));
    const std::size_t udp_len = datagram.size() - header_len;
    append(summed, bytes{0, 17, static_cast<std::uint8_t>(udp_len >> 8),
                         static_cast<std::uint8_t>(udp_len)});
    append(summed, datagram.subspan(header_len));
    return plain_checksum(summed);
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

struct frame_case {
    const char *what;
    const char *source;
    const char *destination;
    std::size_t link_len;
    std::size_t ip_len;
    std::size_t payload_len;
};

class udp_frame : public testing::TestWithParam<frame_case>
{
};

TEST_P(udp_frame, has_valid_headers_at_the_positions_it_tells)
{
    const world w({.start = false});
    const frame_case &c = GetParam();
    const hosted::udp_arrival way{.source = address(c.source),
                                  .destination = address(c.destination),
                                  .source_port = 49152,
                                  .destination_port = 4784,
                                  .ttl = 254,
                                  .tos = 0xc0,
                                  .iif = 3,
                                  .member_ifindex = 4};
    const bytes payload = counted(c.payload_len);
    sk_buff *skb = hosted::udp_frame_skb(payload, way, c.link_len);
    EXPECT_EQ(contents(skb), payload);
    EXPECT_EQ(skb_iif(skb), 3);
    EXPECT_EQ(skb_member_ifindex(skb), 4);
    EXPECT_EQ(skb_network_header(skb) - skb_mac_header(skb), static_cast<long>(c.link_len));
    EXPECT_EQ(skb_data(skb) - skb_network_header(skb), static_cast<long>(c.ip_len + 8));

    bytes ip(skb_network_header(skb), skb_data(skb) + skb_len(skb));
    const std::uint8_t *link = skb_mac_header(skb);
    const bool v4 = c.ip_len == 20;
    EXPECT_EQ(link[c.link_len - 2] << 8 | link[c.link_len - 1], v4 ? 0x0800 : 0x86dd);
    if (v4) {
        const bytes expected{0x45, 0xc0, static_cast<std::uint8_t>(ip.size() >> 8),
                             static_cast<std::uint8_t>(ip.size())};
        EXPECT_EQ(bytes(ip.begin(), ip.begin() + 4), expected);
        EXPECT_EQ(ip[8], 254);
        EXPECT_EQ(ip[9], 17);
        EXPECT_EQ(plain_checksum({ip.begin(), ip.begin() + 20}), 0);
        EXPECT_EQ(std::memcmp(&ip[12], way.source.s6_addr + 12, 4), 0);
        EXPECT_EQ(std::memcmp(&ip[16], way.destination.s6_addr + 12, 4), 0);
    } else {
        const std::size_t udp_len = 8 + c.payload_len;
        const bytes expected{0x6c,
                             0,
                             0,
                             0,
                             static_cast<std::uint8_t>(udp_len >> 8),
                             static_cast<std::uint8_t>(udp_len),
                             17,
                             254};
        EXPECT_EQ(bytes(ip.begin(), ip.begin() + 8), expected);
        EXPECT_EQ(std::memcmp(&ip[8], &way.source, 16), 0);
        EXPECT_EQ(std::memcmp(&ip[24], &way.destination, 16), 0);
    }
    EXPECT_EQ(plain_udp_checksum(ip, c.ip_len), 0);
    EXPECT_EQ(ip[c.ip_len + 2] << 8 | ip[c.ip_len + 3], 4784);
    consume_skb(skb);
}

INSTANTIATE_TEST_SUITE_P(
    cases, udp_frame,
    testing::Values(frame_case{"ipv4", "192.0.2.1", "192.0.2.2", 14, 20, 24},
                    frame_case{"ipv4_odd", "192.0.2.1", "192.0.2.2", 14, 20, 27},
                    frame_case{"ipv4_vlan", "192.0.2.1", "192.0.2.2", 18, 20, 52},
                    frame_case{"ipv4_empty", "192.0.2.1", "192.0.2.2", 14, 20, 0},
                    frame_case{"ipv6", "2001:db8::1", "fe80::2", 14, 40, 24},
                    frame_case{"ipv6_large", "2001:db8::1", "fe80::2", 14, 40, 1400}),
    [](const auto &tested) { return std::string(tested.param.what); });

TEST(jiffies, durations_are_rounded_up_and_never_wrap)
{
    EXPECT_EQ(__usecs_to_jiffies(0), 0U);
    EXPECT_EQ(__usecs_to_jiffies(1), 1U);
    EXPECT_EQ(__usecs_to_jiffies(1000), 1U);
    EXPECT_EQ(__usecs_to_jiffies(1001), 2U);
    EXPECT_EQ(__usecs_to_jiffies(~0U), 4'294'968U);
    EXPECT_EQ(__msecs_to_jiffies(~0U), ~0U);
    EXPECT_EQ(jiffies_to_usecs(1), 1000U);
}

} // namespace
