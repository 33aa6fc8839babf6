// SPDX-License-Identifier: GPL-2.0
//
// Socket buffers, and the frames that are built in them.
#include <cerrno>
#include <numeric>

#include "hex.h"
#include "platform/hosted/skbuff.h"
#include "sim_fixture.h"

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
    w.fail(service::skb_reallocation, -ENOMEM);
    EXPECT_EQ(pskb_expand_head(skb, 40, 0, GFP_ATOMIC), -ENOMEM);
    EXPECT_EQ(contents(skb), before);
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
    EXPECT_EQ(skb_push(skb, 2), skb_head(skb));
    EXPECT_EQ(skb_tailroom(skb), 0U);
    skb_get(skb);
    EXPECT_DEATH((void)pskb_expand_head(skb, 1, 0, GFP_ATOMIC), "others hold");
    kfree_skb(skb);
    kfree_skb(skb);
}

TEST_F(skbuff, udp_frame_is_a_whole_frame_with_valid_checksums)
{
    const struct {
        const char *source, *destination;
        bytes payload;
        std::size_t link_len;
        std::string link, ip, udp;
    } cases[] = {
        {"192.0.2.1", "192.0.2.2", counted(5), 18, "000000000000000000000000000000000800",
         "45c0002100000000fe113808c0000201c0000202", "c00012b0000da31b0001020304"},
        {"2001:db8::1", "fe80::2", counted(5), 14, "00000000000000000000000086dd",
         "6c000000000d11fe20010db8000000000000000000000001fe800000000000000000000000000002",
         "c00012b0000dfae20001020304"},
        // A checksum that comes to 0 is written as all ones.
        {"192.0.2.1", "192.0.2.2", bytes{0xa9, 0x25}, 0, "",
         "45c0001e00000000fe11380bc0000201c0000202", "c00012b0000affffa925"},
    };
    for (const auto &c : cases) {
        const hosted::udp_arrival way{.source = address(c.source),
                                      .destination = address(c.destination),
                                      .source_port = 49152,
                                      .destination_port = 4784,
                                      .ttl = 254,
                                      .tos = 0xc0,
                                      .iif = 3,
                                      .member_ifindex = 4};
        sk_buff *skb = hosted::udp_frame_skb(c.payload, way, c.link_len);
        EXPECT_EQ(contents(skb), c.payload);
        EXPECT_EQ(skb_iif(skb), 3);
        EXPECT_EQ(skb_member_ifindex(skb), 4);
        EXPECT_EQ(hex({skb_mac_header(skb), skb_network_header(skb)}), c.link);
        EXPECT_EQ(hex({skb_network_header(skb), skb_data(skb) + skb_len(skb)}), c.ip + c.udp);
        consume_skb(skb);
    }
}

} // namespace
