// SPDX-License-Identifier: GPL-2.0
//
// An agent that was built with the first libkelm.h, kept here as it was, runs with the library of
// today: it finds everything where it was, and nothing is written past the end of what it has.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>

namespace
{

struct bfd_0 {
    std::uint8_t version, diag, state, flags, detect_multiplier;
    std::uint32_t my_discriminator, your_discriminator;
    std::uint32_t min_tx_interval, min_rx_interval, min_echo_rx_interval;
};

struct packet_0 {
    const char *source, *destination;
    std::uint16_t source_port, destination_port;
    std::uint8_t ttl, traffic_class;
    const char *ethernet_destination, *ethernet_source;
    bfd_0 bfd;
    std::uint8_t auth_type, key_id;
    const void *key;
    std::size_t key_length;
};

struct report_0 {
    std::uint16_t type;
    std::size_t length;
    const void *body;
};

struct frame_0 {
    char source[46], destination[46];
    std::uint8_t ttl;
    std::uint16_t source_port, destination_port;
    bfd_0 bfd;
    std::uint8_t auth_type, auth_key_id, auth_has_sequence;
    std::uint32_t auth_sequence;
};

struct packet_change_0 {
    std::uint32_t discriminator, ifindex, member_ifindex, l3_offset, bfd_offset, packet_len;
    std::uint8_t packet[128];
};

// What kelm_msg_tx_set_packet takes, to the byte, and kelm_bfd_auth_key.
constexpr std::size_t set_packet_0 = 72;
constexpr std::size_t auth_key_0 = 24;

extern "C" {
void kelm_packet_init(packet_0 *);
int kelm_build_packet(const packet_0 *, void *settings, void *buffer, std::size_t room);
int kelm_build_key(std::uint8_t, std::uint8_t, const void *, std::size_t, void *slot);
int kelm_decode_frame(const report_0 *, frame_0 *);
}

constexpr std::uint8_t canary = 0xa5;

template<typename T>
struct guarded {
    T value;
    std::uint8_t behind[64];

    guarded() { std::memset(this, canary, sizeof *this); }
    bool is_intact() const
    {
        return std::ranges::all_of(behind, [](std::uint8_t byte) { return byte == canary; });
    }
};

TEST(libkelm_abi, agent_built_with_the_first_header_still_runs)
{
    guarded<packet_0> packet;
    kelm_packet_init(&packet.value);
    ASSERT_TRUE(packet.is_intact());
    EXPECT_EQ(packet.value.destination_port, 3784);
    EXPECT_EQ(packet.value.ttl, 255);
    EXPECT_EQ(packet.value.bfd.detect_multiplier, 3);
    EXPECT_EQ(packet.value.ethernet_source, nullptr);
    EXPECT_EQ(packet.value.key_length, 0U);
    packet.value.source = "10.0.0.1";
    packet.value.destination = "fd00::2";
    packet.value.source_port = 49157;
    packet.value.bfd.state = 3;
    packet.value.bfd.flags |= 0x20; // Poll
    packet.value.bfd.my_discriminator = 5;
    packet.value.bfd.min_echo_rx_interval = 6;
    packet.value.auth_type = 5; // meticulous SHA-1
    packet.value.key_id = 7;
    packet.value.key = "key";
    packet.value.key_length = 3;

    guarded<std::uint8_t[set_packet_0]> settings;
    packet_change_0 change = {};
    EXPECT_EQ(kelm_build_packet(&packet.value, settings.value, change.packet, 128), -22);
    packet.value.destination = "10.0.0.2";
    ASSERT_EQ(kelm_build_packet(&packet.value, settings.value, change.packet, 128), 80);
    EXPECT_TRUE(settings.is_intact());
    EXPECT_EQ(std::memcmp(settings.value + 16, "\x00\x00\x00\x00\x1c\x00\x00\x00", 8), 0);
    EXPECT_EQ(std::memcmp(settings.value + 48, "key", 4), 0);

    guarded<std::uint8_t[auth_key_0]> slot;
    ASSERT_EQ(kelm_build_key(5, 7, "key", 3, slot.value), 0);
    EXPECT_TRUE(slot.is_intact());
    EXPECT_EQ(slot.value[20], 7);

    change.discriminator = 5;
    change.bfd_offset = 28;
    change.packet_len = 80;
    const report_0 report = {.type = 23, .length = sizeof change, .body = &change};
    guarded<frame_0> frame;
    ASSERT_EQ(kelm_decode_frame(&report, &frame.value), 0);
    EXPECT_TRUE(frame.is_intact());
    EXPECT_STREQ(frame.value.source, "10.0.0.1");
    EXPECT_STREQ(frame.value.destination, "10.0.0.2");
    EXPECT_EQ(frame.value.ttl, 255);
    EXPECT_EQ(frame.value.source_port, 49157);
    EXPECT_EQ(frame.value.destination_port, 3784);
    EXPECT_EQ(frame.value.bfd.flags, 0x20 | 0x08 | 0x04); // and what it has of its own, and a key
    EXPECT_EQ(frame.value.bfd.state, 3);
    EXPECT_EQ(frame.value.bfd.my_discriminator, 5U);
    EXPECT_EQ(frame.value.bfd.min_echo_rx_interval, 6U);
    EXPECT_EQ(frame.value.auth_type, 5);
    EXPECT_EQ(frame.value.auth_key_id, 7);
    EXPECT_EQ(frame.value.auth_has_sequence, 1);
}

} // namespace
