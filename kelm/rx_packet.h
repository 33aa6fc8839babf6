// SPDX-License-Identifier: GPL-2.0
//
// The receive path of one datagram.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kelm/kelm.h"

struct frame_info;
struct kvec;
struct sock;

// Module load.
void rx_packet_init();

// The data-ready callback of every receive socket, whose user data is its vrf: one datagram.
void rx_data_ready(sock *sk);

// The data-ahead callback: has the processor fetch the sessions of datagrams that come next.
void rx_data_ahead(sock *sk, const kvec *payloads, std::size_t count);

// The fixed part of a KELM_MSG_RX_PACKET_CHANGE for a frame of that length.
[[nodiscard]] kelm_msg_rx_packet_change
packet_change_message(std::uint32_t discriminator, const frame_info &info, std::size_t frame_len);
