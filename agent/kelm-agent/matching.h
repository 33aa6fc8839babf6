// SPDX-License-Identifier: GPL-2.0
#pragma once

#include "kelm-agent/addressing.h"
#include "libkelm/frame.h"

namespace kelm_agent
{

// The source address of received packets.
const kelm::ip_address &arrival_source(const session_config &);

struct address_hash {
    std::size_t operator()(const kelm::ip_address &address) const
    {
        const auto octets = address.view();
        return std::hash<std::string_view>()(
            {reinterpret_cast<const char *>(octets.data()), octets.size()});
    }
};

// Whether a received packet has the session's addresses and port, and arrived on its interface.
bool is_from_peer(const session_config &, const addressing &, const kelm::packet_change &,
                  const kelm::frame_info &);

// The same for a packet without our discriminator, which nothing else assigns to the session (RFC
// 5880 section 6.3, RFC 5881 section 3, RFC 5883 section 4): its member link must be known as well.
bool is_addressed_to(const session_config &, const addressing &, const kelm::packet_change &,
                     const kelm::frame_info &);

} // namespace kelm_agent
