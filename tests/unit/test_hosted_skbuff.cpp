// SPDX-License-Identifier: GPL-2.0
//
// Socket buffers, and the frames that are built in them.
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
