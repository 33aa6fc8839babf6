// SPDX-License-Identifier: GPL-2.0
//
// The netlink socket of a vrf: requests come in, notifications and replies go out.
#pragma once

#include <cstdint>

#include "platform/netlink.h"

struct kelm_vrf;

// Request handlers, called in the task of the sending agent with no lock held and with a
// reference on the vrf. Return 0 or a negative error number, which goes into the acknowledgement.
using handler_fn = int (*)(kelm_vrf *vrf, sk_buff *skb, const nlmsghdr *hdr);

// The input of every vrf's netlink socket: one datagram from an agent.
void receive_netlink(sk_buff *skb);

// Hand a finished message to the agents of a vrf. The buffer is taken over whatever happens; what
// cannot be delivered is counted in the vrf's statistics and logged, never sent again. The caller
// holds a reference on the vrf or knows otherwise that its socket is not released meanwhile.
//
// Multicasts, any context: a frame that the agent must see, a session's failure message.
void kelm_netlink_send_packet_change(kelm_vrf *vrf, sk_buff *skb);
void kelm_netlink_send_failure(kelm_vrf *vrf, sk_buff *skb);

// Unicast without waiting, task context: 0 or the negative error of the send.
[[nodiscard]] int kelm_netlink_send_stats(kelm_vrf *vrf, sk_buff *skb, std::uint32_t portid);
