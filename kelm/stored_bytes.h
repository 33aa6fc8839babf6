// SPDX-License-Identifier: GPL-2.0
//
// Bytes of which a record keeps a copy: in the record itself, so that they are fetched with it, or
// on the heap if they are more than usual.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "kelm/wipe.h"
#include "platform/memory.h"

// Enough for a frame over IPv6, and for a packet with authentication over IPv4.
inline constexpr std::size_t usual_packet_len = 96;

using packet_room = std::uint8_t[usual_packet_len];

struct stored_bytes {
    std::size_t len;    // 0 for none
    std::uint8_t *data; // the record's room, or owned; null for none
};

// The caller of these gives always the same room for the same bytes.

inline void forget(stored_bytes &bytes, packet_room &room)
{
    if (bytes.data != nullptr)
        wipe(bytes.data, bytes.len);
    if (bytes.data != room)
        kfree(bytes.data);
    bytes = {};
}

// Replaces what is stored by a copy of other bytes. False, with nothing changed, without memory.
// Any context.
[[nodiscard]] inline bool store(stored_bytes &bytes, packet_room &room, const std::uint8_t *from,
                                std::size_t len)
{
    std::uint8_t *data = room;
    if (len > sizeof(room))
        data = static_cast<std::uint8_t *>(kmalloc(len, GFP_ATOMIC));
    if (data == nullptr)
        return false;
    std::memcpy(data, from, len);
    if (bytes.data != data)
        forget(bytes, room);
    bytes = {len, data};
    return true;
}
