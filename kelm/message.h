// SPDX-License-Identifier: GPL-2.0
//
// Reading requests and appending messages.
#pragma once

#include <cstdint>
#include <cstring>

#include "platform/netlink.h"

// The body of a request, or null if the message is too short to hold one.
template<class Body>
[[nodiscard]] const Body *request_body(const nlmsghdr *hdr)
{
    if (hdr->nlmsg_len < NLMSG_HDRLEN + sizeof(Body))
        return nullptr;
    return reinterpret_cast<const Body *>(reinterpret_cast<const std::uint8_t *>(hdr) +
                                          NLMSG_HDRLEN);
}

// Whether the request also holds the tail bytes that its body announces.
template<class Body>
[[nodiscard]] bool request_has_tail(const nlmsghdr *hdr, std::uint32_t tail)
{
    return hdr->nlmsg_len - NLMSG_HDRLEN - sizeof(Body) >= tail;
}

// Whether a message with a body of this length fits behind what the buffer holds.
[[nodiscard]] inline bool message_fits(const sk_buff *skb, std::size_t body_len)
{
    return skb_tailroom(skb) >= NLMSG_SPACE(body_len);
}

// Appends a message with this body, which fits.
template<class Body>
void append_message(sk_buff *skb, std::uint32_t portid, std::uint32_t seq, int type,
                    const Body &body)
{
    nlmsghdr *hdr = __nlmsg_put(skb, portid, seq, type, static_cast<int>(sizeof(Body)), 0);
    std::memcpy(reinterpret_cast<std::uint8_t *>(hdr) + NLMSG_HDRLEN, &body, sizeof(Body));
}
