// SPDX-License-Identifier: GPL-2.0
//
// What netlink.cpp and netlink_dump.cpp share, above all the state of a dump.
#pragma once

#include <cstdint>

#include "platform/netlink.h"

namespace hosted
{

// The body of a message.
inline std::uint8_t *message_body(nlmsghdr *nlh)
{
    return reinterpret_cast<std::uint8_t *>(nlh) + NLMSG_HDRLEN;
}

struct netlink_dump {
    netlink_callback callback{};
    int (*fill)(sk_buff *skb, netlink_callback *cb);
    int (*finish)(netlink_callback *cb);
    std::uint32_t min_room;
    int fill_result = 1;        // positive: there is more; else what NLMSG_DONE reports
    bool done_appended = false; // what is or was in unsent ends with NLMSG_DONE
    bool running = true;        // the engine's code is being called
    bool ending = false;        // and it is `finish`
    sk_buff *unsent = nullptr;  // filled, and waits for room
};

} // namespace hosted
