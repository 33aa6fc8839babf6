// SPDX-License-Identifier: GPL-2.0
//
// Packets as they go on the wire and come from it, by layers, and what holds for every one of
// them: written out here once more, independently of the engine.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include "hex.h"
#include "platform/hosted/udp_frame.h"
#include "sim_fixture.h"

namespace sim
{

inline constexpr std::string_view test_key =
    "0123456789abcdefghij"; // 20 bytes; MD5 uses the first 16
inline constexpr std::uint8_t test_key_id = 9;

// The length of an authentication section; that of a password is test_key's first 6 bytes.
inline std::size_t section_len(std::uint8_t type)
{
    constexpr std::size_t lens[] = {0, 3 + 6, 24, 24, 28, 28};
    return type < std::size(lens) ? lens[type] : type == BFD_AUTH_DEBUG_SEQNUM ? 8 : 0;
}

// A section without sequence number and digest; a password section is complete.
inline bytes auth_section(std::uint8_t type)
{
    bytes section(section_len(type));
    if (section.empty())
        return section;
    section[0] = type;
    section[1] = static_cast<std::uint8_t>(section.size());
    section[2] = type == BFD_AUTH_DEBUG_SEQNUM ? 0 : test_key_id;
    if (type == BFD_AUTH_PASSWORD)
        std::copy_n(test_key.begin(), section.size() - 3, section.begin() + 3);
    return section;
}

inline bytes with_section(control_packet packet, const bytes &section)
{
    if (!section.empty())
        packet.flags |= BFD_FLAG_AUTH_PRESENT;
    bytes result = packet.encode();
    append(result, section);
    result[offsetof(bfd_ctrl, len)] = static_cast<std::uint8_t>(result.size());
    return result;
}

// A packet to transmit: an IP datagram, or with a link header a whole frame.
struct outgoing {
    bytes payload = control_packet{.my_discriminator = 5, .your_discriminator = 77}.encode();
    in6_addr source = address("10.0.0.1");
    in6_addr destination = address("10.0.0.2");
    std::size_t link_len = 0;

    [[nodiscard]] bytes encode() const
    {
        const hosted::udp_arrival way{.source = source,
                                      .destination = destination,
                                      .source_port = 49152,
                                      .destination_port = 3784,
                                      .ttl = 255,
                                      .tos = 0xc0,
                                      .iif = 0,
                                      .member_ifindex = 0};
        bytes result(hosted::udp_header_room(way, link_len));
        append(result, payload);
        hosted::write_udp_headers(std::span(result).last(payload.size()), way, link_len);
        for (std::size_t i = 0; i < std::min<std::size_t>(link_len, 6); ++i)
            result[i] = static_cast<std::uint8_t>(0x20 + i); // Ethernet destination
        return result;
    }
};

// With an authentication section of this type, or none.
inline outgoing authenticated(std::uint8_t type)
{
    return {.payload = with_section({.my_discriminator = 5, .your_discriminator = 77},
                                    auth_section(type))};
}

// The fixed parts of the two set requests, as far as tests vary them.
struct tx {
    kelm_microsecs period = 300'000;
    std::uint16_t jitter_type = BFD_TX_JITTER_NONE;
    std::uint8_t flags = 0; // KELM_TX_*
    std::uint32_t ifindex = 0;
    kelm_microsecs latch_period = 300'000;
    std::uint8_t latch_state = BFD_STATE_DOWN;

    operator kelm_msg_tx_set_packet() const
    {
        kelm_msg_tx_set_packet fixed{};
        fixed.period = period;
        fixed.jitter_type = jitter_type;
        fixed.flags = flags;
        fixed.ifindex = ifindex;
        fixed.latch_period = latch_period;
        fixed.latch_state = latch_state;
        return fixed;
    }
};

struct rx {
    std::uint8_t flags = KELM_RX_TIMER_ACTIVE; // KELM_RX_*
    std::uint8_t multiplier = 3;
    kelm_microsecs period = 300'000;
    std::vector<std::uint32_t> latch = {}; // packets, at most 8
    std::uint8_t latch_diagnostic = BFD_DIAG_CTRL_TIMEOUT;
    std::uint8_t type = KELM_RX_SESSION_BFD;
    std::uint8_t auth_type = BFD_AUTH_NONE; // with test_key
    std::uint8_t auth_flags = 0;            // KELM_AUTH_TTL_*
    std::uint32_t auth_ifindex = 0;

    operator kelm_msg_rx_set_session() const
    {
        kelm_msg_rx_set_session fixed{};
        fixed.flags = flags;
        fixed.multiplier = multiplier;
        fixed.period = period;
        std::ranges::copy(latch, fixed.latch_tx_packets);
        fixed.latch_diagnostic = latch_diagnostic;
        fixed.type = type;
        fixed.auth = {auth_ifindex, auth_type, auth_flags, {}};
        std::copy_n(test_key.begin(), auth_type == BFD_AUTH_PASSWORD ? 6 : test_key.size(),
                    fixed.auth_key[1].key);
        fixed.auth_key[1].key_id = test_key_id;
        fixed.auth_key[1].key_valid = 1;
        return fixed;
    }
};

// The body of KELM_MSG_TX_SET_PACKET: type, lengths, offsets and authentication are those of the
// packet's bytes.
inline bytes set_request(std::uint32_t discriminator, const outgoing &packet,
                         kelm_msg_tx_set_packet fixed = tx{})
{
    const bytes encoded = packet.encode();
    fixed.header.discriminator = discriminator;
    fixed.type = packet.link_len == 0 ? KELM_TX_SESSION_IP : KELM_TX_SESSION_L2;
    fixed.ip_hdr_offset = static_cast<std::uint32_t>(packet.link_len);
    fixed.packet_len = static_cast<std::uint32_t>(encoded.size());
    fixed.latch_offset = static_cast<std::uint32_t>(encoded.size() - packet.payload.size());
    if (packet.payload.size() > BFD_CTRL_LEN) {
        fixed.auth.type = packet.payload[BFD_CTRL_LEN];
        std::memcpy(&fixed.auth_hdr, packet.payload.data() + BFD_CTRL_LEN,
                    packet.payload.size() - BFD_CTRL_LEN);
        if (fixed.auth.type >= BFD_AUTH_KEYED_MD5 && fixed.auth.type <= BFD_AUTH_METICULOUS_SHA1)
            std::memcpy(fixed.auth_hdr.sha1.key_digest, test_key.data(), test_key.size());
    }
    bytes body = to_bytes(fixed);
    append(body, encoded);
    return body;
}

// The body of KELM_MSG_RX_SET_SESSION.
inline bytes set_request(std::uint32_t discriminator, kelm_msg_rx_set_session fixed,
                         const bytes &failure_message)
{
    fixed.header.discriminator = discriminator;
    fixed.failure_packet_len = static_cast<std::uint32_t>(failure_message.size());
    bytes body = to_bytes(fixed);
    append(body, failure_message);
    return body;
}

// A failure message that carries the discriminator.
inline bytes failure_message(std::uint32_t discriminator)
{
    return make_message(KELM_MSG_SESSION_FAILURE, 0, 0, to_bytes(kelm_msg_header{discriminator}));
}

// The control packet in a frame whose IP header is at `ip_offset`.
inline std::span<const std::uint8_t> bfd_in(const bytes &data, std::size_t ip_offset = 0)
{
    const std::size_t headers = ip_offset + (data.at(ip_offset) >> 4 == 4 ? 20 : 40) + 8;
    return std::span(data).subspan(headers);
}

inline bfd_ctrl ctrl_in(const bytes &data, std::size_t ip_offset = 0)
{
    return read_as<bfd_ctrl>(bfd_in(data, ip_offset));
}

// Whether the UDP checksum is there and right (RFC 768, RFC 8200 section 8.1).
inline bool udp_checksum_right(const bytes &data, std::size_t ip_offset = 0)
{
    const bool v4 = data.at(ip_offset) >> 4 == 4;
    const std::size_t addresses = ip_offset + (v4 ? 12 : 8);
    const std::size_t udp = ip_offset + (v4 ? 20 : 40);
    std::uint64_t sum = 17 + data.size() - udp; // of the pseudo header: protocol and length
    for (std::size_t i = addresses; i < data.size(); ++i)
        sum += (i - addresses) % 2 == 0 ? data[i] * 256U : data[i];
    return sum % 0xffff == 0 && (data.at(udp + 6) != 0 || data.at(udp + 7) != 0);
}

} // namespace sim
