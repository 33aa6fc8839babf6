// SPDX-License-Identifier: GPL-2.0
//
// What the tests of the protocol library share: packets, and a trace callback that remembers.
#pragma once

#include <algorithm>
#include <cstdint>
#include <gtest/gtest.h>
#include <memory>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include "byte_order.h"
#include "hex.h"
#include "kelm_bfd_common_utils.h"

using bytes = std::vector<std::uint8_t>;

// A copy of `data` in a block of exactly its size but for `misalignment` bytes in front, so that
// the address sanitizer sees the first access behind its end, and the undefined behaviour
// sanitizer every access that counts on alignment.
class exact_copy
{
  public:
    explicit exact_copy(std::span<const std::uint8_t> data, std::size_t misalignment = 1)
        : block_(std::make_unique<std::uint8_t[]>(misalignment + data.size())),
          data_(block_.get() + misalignment, data.size())
    {
        std::ranges::copy(data, data_.begin());
    }

    std::uint8_t *data() { return data_.data(); }
    bfd_ctrl *ctrl() { return reinterpret_cast<bfd_ctrl *>(data_.data()); }
    bytes contents() const { return {data_.begin(), data_.end()}; }

  private:
    std::unique_ptr<std::uint8_t[]> block_;
    std::span<std::uint8_t> data_;
};

// A traced text, with the discriminator that it is about.
using trace_line = std::tuple<kelm_trace_type, std::uint32_t, std::string>;

inline std::vector<trace_line> traced;

inline void remember(kelm_trace_type type, std::uint32_t discriminator, const char *text)
{
    traced.emplace_back(type, discriminator, text);
}

constexpr std::uint32_t my_disc = 0x11223344;
constexpr std::uint32_t your_disc = 0x55667788;

// A good control packet, state Up, with this authentication section, if any.
inline bytes make_packet(const bytes &section = {})
{
    const std::uint8_t flags = section.empty() ? 0xc0 : 0xc4;
    bytes packet = {0x20, flags, 3,    static_cast<std::uint8_t>(24 + section.size()),
                    0x11, 0x22,  0x33, 0x44,
                    0x55, 0x66,  0x77, 0x88,
                    0x00, 0x04,  0x93, 0xe0,
                    0x00, 0x04,  0x93, 0xe0,
                    0x00, 0x00,  0x00, 0x00};
    packet.insert(packet.end(), section.begin(), section.end());
    return packet;
}

// A section of one of the types with a sequence number, its digest (if any) zero.
inline bytes make_seq_section(std::uint8_t type, std::uint8_t key_id, std::uint32_t seq_num)
{
    bytes section(kelm_auth_header_len(type, nullptr));
    section[0] = type;
    section[1] = static_cast<std::uint8_t>(section.size());
    section[2] = key_id;
    store_be32(&section[4], seq_num);
    return section;
}
