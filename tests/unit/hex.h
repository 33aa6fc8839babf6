// SPDX-License-Identifier: GPL-2.0
//
// Bytes as a test expects and prints them.
#pragma once

#include <cstdint>
#include <span>
#include <string>

inline std::string hex(std::span<const std::uint8_t> data)
{
    std::string text;
    for (const std::uint8_t byte : data) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}
