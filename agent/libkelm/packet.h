// SPDX-License-Identifier: GPL-2.0
//
// BFD packets as they go on the wire: built from their parameters for a transmit packet.
#pragma once

#include <optional>

#include "kelm.h"
#include "libkelm/address.h"

namespace kelm
{

// UDP destination ports.
constexpr std::uint16_t port_single_hop = 3784;      // RFC 5881
constexpr std::uint16_t port_echo = 3785;            // RFC 5881
constexpr std::uint16_t port_multihop = 4784;        // RFC 5883
constexpr std::uint16_t port_lag = 6784;             // RFC 7130
constexpr std::uint16_t port_sbfd_reflector = 7784;  // RFC 7881
constexpr std::uint16_t port_sbfd_initiator = 47657; // kelm's own end of S-BFD

// The mandatory section of a control packet (RFC 5880 section 4.1) in host byte order.
struct bfd_fields {
    std::uint8_t diag = BFD_DIAG_NONE;
    std::uint8_t state = BFD_STATE_DOWN;
    bool poll = false;
    bool final = false;
    bool control_plane_independent = true; // kelm continues without its agent
    bool demand_mode = false;
    std::uint8_t detect_multiplier = 3;
    std::uint32_t my_discriminator = 0;
    std::uint32_t your_discriminator = 0;
    kelm_microsecs min_tx_interval = 0;
    kelm_microsecs min_rx_interval = 0;
    kelm_microsecs min_echo_rx_interval = 0;

    bool operator==(const bfd_fields &) const = default;
};

// How packets are authenticated (RFC 5880 section 6.7).
struct auth_settings {
    std::uint8_t type = BFD_AUTH_NONE; // bfd_auth_types
    std::uint8_t key_id = 0;
    bytes key; // password: 1 to 16 bytes, none of them 0; MD5: up to 16; SHA-1: up to 20
};

// Of a frame around the IP datagram.
struct ethernet_settings {
    mac_address destination;
    mac_address source;
};

// What a packet is made of.
struct packet_settings {
    ip_address source;
    ip_address destination;
    std::uint16_t source_port = 0;
    std::uint16_t destination_port = port_single_hop;
    std::uint8_t ttl = 255; // or hop limit
    std::uint8_t traffic_class =
        0xc0; // type of service: network control (RFC 2474, class selector 6)
    std::optional<ethernet_settings> ethernet; // makes it a frame instead of an IP datagram
    bfd_fields bfd;
    auth_settings auth;
};

// The packet, and what the fields of kelm_msg_tx_set_packet have to say about it.
struct built_packet {
    kelm_tx_session_types type;
    std::uint32_t ip_hdr_offset;
    std::uint32_t latch_offset;
    bfd_auth_hdr auth_hdr; // holds the key
    bytes packet;          // a password is in it; sequence number and digest are kelm's to fill in

    // Sets type, offsets and authentication; `auth_type` is that of the settings it was built from.
    void apply_to(kelm_msg_tx_set_packet &settings, std::uint8_t auth_type) const;
};

// Lengths and checksums are filled in. Throws error with EINVAL when addresses or key do not fit.
built_packet build_packet(const packet_settings &);

// A key slot for kelm_msg_rx_set_session; the same rules for the key.
kelm_bfd_auth_key key_slot(const auth_settings &);

} // namespace kelm
