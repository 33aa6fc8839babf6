// SPDX-License-Identifier: GPL-2.0
//
// Netlink messages inside a datagram.
#pragma once

#include <algorithm>
#include <cstring>
#include <linux/netlink.h>
#include <optional>

#include "libkelm/bytes.h"

namespace kelm
{

// One message inside a datagram.
struct message {
    nlmsghdr header;
    byte_view body; // without padding; into the datagram
};

// Walks the messages of one datagram, of any content. A message that claims less than its header
// or more than there is ends the walk.
class message_reader
{
  public:
    // `datagram` has to outlive the reader and the messages.
    explicit message_reader(byte_view datagram) : rest_(datagram) {}

    // Nothing at the end.
    std::optional<message> next()
    {
        message found{};
        if (rest_.size() < sizeof found.header)
            return std::nullopt;
        std::memcpy(&found.header, rest_.data(), sizeof found.header);
        const std::size_t length = found.header.nlmsg_len;
        if (length < sizeof found.header || length > rest_.size())
            return std::nullopt;
        found.body = rest_.subspan(sizeof found.header, length - sizeof found.header);
        const std::size_t padded = (length + NLMSG_ALIGNTO - 1) / NLMSG_ALIGNTO * NLMSG_ALIGNTO;
        rest_ = rest_.subspan(std::min(padded, rest_.size()));
        return found;
    }

  private:
    byte_view rest_;
};

// Reads a structure from the front of bytes that need not be aligned for it.
template<typename T>
[[nodiscard]] bool read_into(T &value, byte_view from)
{
    if (from.size() < sizeof value)
        return false;
    std::memcpy(&value, from.data(), sizeof value);
    return true;
}

// The same as a value; nothing where there are too few bytes.
template<typename T>
std::optional<T> read_as(byte_view from)
{
    T value;
    if (!read_into(value, from))
        return std::nullopt;
    return value;
}

} // namespace kelm
