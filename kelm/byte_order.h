// SPDX-License-Identifier: GPL-2.0
//
// Byte order, and integers at addresses of any alignment.
//
// Numbers are kept in host order and bytes in network order: the be functions cross that border
// while they load or store. load_host and store_host are for host-order integers inside messages
// and frames, which need not be aligned there.
#pragma once

#include <bit>
#include <cstdint>
#include <type_traits>

constexpr std::uint16_t load_be16(const std::uint8_t *from)
{
    return static_cast<std::uint16_t>(from[0] << 8 | from[1]);
}

constexpr std::uint32_t load_be32(const std::uint8_t *from)
{
    return static_cast<std::uint32_t>(load_be16(from)) << 16 | load_be16(from + 2);
}

constexpr void store_be16(std::uint8_t *to, std::uint16_t value)
{
    to[0] = static_cast<std::uint8_t>(value >> 8);
    to[1] = static_cast<std::uint8_t>(value);
}

constexpr void store_be32(std::uint8_t *to, std::uint32_t value)
{
    store_be16(to, static_cast<std::uint16_t>(value >> 16));
    store_be16(to + 2, static_cast<std::uint16_t>(value));
}

// For integer fields that hold network order, such as the port in a socket address.
constexpr std::uint16_t host_to_be16(std::uint16_t value)
{
    return std::endian::native == std::endian::big ? value : __builtin_bswap16(value);
}

constexpr std::uint32_t host_to_be32(std::uint32_t value)
{
    return std::endian::native == std::endian::big ? value : __builtin_bswap32(value);
}

constexpr std::uint32_t be32_to_host(std::uint32_t value)
{
    return host_to_be32(value);
}

// __builtin_memcpy, because -ffreestanding makes a function call of std::memcpy.
template<typename T>
[[nodiscard]] inline T load_host(const void *from)
{
    static_assert(std::is_trivially_copyable_v<T>);
    T value;
    __builtin_memcpy(&value, from, sizeof value);
    return value;
}

template<typename T>
inline void store_host(void *to, const std::type_identity_t<T> &value)
{
    static_assert(std::is_trivially_copyable_v<T>);
    __builtin_memcpy(to, &value, sizeof value);
}
