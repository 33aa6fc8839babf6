// SPDX-License-Identifier: GPL-2.0
//
// SHA-1 (FIPS 180-1). The context is all the state there is.
#include "sha1.h"

#include <bit>
#include <cstring>

#include "byte_order.h"

namespace
{

constexpr std::size_t block_size = 64;
constexpr std::size_t length_offset = 56; // of the bit count within the last block

constexpr std::uint32_t initial_state[5] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476,
                                            0xc3d2e1f0};

constexpr std::uint32_t round_constants[4] = {0x5a827999, 0x6ed9eba1, 0x8f1bbcdc, 0xca62c1d6};

std::uint32_t mix(std::size_t round, std::uint32_t b, std::uint32_t c, std::uint32_t d)
{
    switch (round / 20) {
    case 0:
        return (b & c) | (~b & d);
    case 2:
        return (b & c) | (b & d) | (c & d);
    default:
        return b ^ c ^ d;
    }
}

// Moves the position within the block, compressing a block that has become full.
void advance(kelm_sha1_ctxt *ctxt, std::size_t len)
{
    ctxt->count = static_cast<std::uint8_t>((ctxt->count + len) % block_size);
    if (ctxt->count == 0)
        kelm_sha1_step(ctxt);
}

void append_byte(kelm_sha1_ctxt *ctxt, std::uint8_t byte)
{
    ctxt->m.b8[ctxt->count] = byte;
    advance(ctxt, 1);
}

void zero_fill(kelm_sha1_ctxt *ctxt, std::size_t end)
{
    const std::size_t len = end - ctxt->count;
    std::memset(ctxt->m.b8 + ctxt->count, 0, len);
    advance(ctxt, len);
}

} // namespace

void kelm_sha1_init(kelm_sha1_ctxt *ctxt)
{
    std::memset(ctxt, 0, sizeof *ctxt);
    std::memcpy(ctxt->h.b32, initial_state, sizeof initial_state);
}

void kelm_sha1_loop(kelm_sha1_ctxt *ctxt, const void *input0, std::size_t len)
{
    const auto *input = static_cast<const std::uint8_t *>(input0);
    while (len != 0) {
        const std::size_t room = block_size - ctxt->count;
        const std::size_t taken = len < room ? len : room;
        std::memcpy(ctxt->m.b8 + ctxt->count, input, taken);
        ctxt->c.b64[0] += taken * 8;
        advance(ctxt, taken);
        input += taken;
        len -= taken;
    }
}

void kelm_sha1_pad(kelm_sha1_ctxt *ctxt)
{
    append_byte(ctxt, 0x80);
    if (ctxt->count > length_offset)
        zero_fill(ctxt, block_size);
    if (ctxt->count < length_offset)
        zero_fill(ctxt, length_offset);
    for (int shift = 56; shift >= 0; shift -= 8)
        append_byte(ctxt, static_cast<std::uint8_t>(ctxt->c.b64[0] >> shift));
}

void kelm_sha1_result(kelm_sha1_ctxt *ctxt, void *digest0)
{
    kelm_sha1_pad(ctxt);
    auto *digest = static_cast<std::uint8_t *>(digest0);
    for (std::size_t i = 0; i < 5; ++i)
        store_be32(digest + 4 * i, ctxt->h.b32[i]);
}

void kelm_sha1_step(kelm_sha1_ctxt *ctxt)
{
    std::uint32_t *words = ctxt->m.b32;
    for (std::size_t i = 0; i < 16; ++i)
        words[i] = be32_to_host(words[i]);

    std::uint32_t *h = ctxt->h.b32;
    std::uint32_t a = h[0], b = h[1], c = h[2], d = h[3], e = h[4];
    for (std::size_t round = 0; round < 80; ++round) {
        // The 80 words of the schedule are made in place, in a ring of the last 16.
        std::uint32_t &word = words[round % 16];
        if (round >= 16)
            word = std::rotl(words[(round + 13) % 16] ^ words[(round + 8) % 16] ^
                                 words[(round + 2) % 16] ^ word,
                             1);
        const std::uint32_t sum =
            std::rotl(a, 5) + mix(round, b, c, d) + e + word + round_constants[round / 20];
        e = d;
        d = c;
        c = std::rotl(b, 30);
        b = a;
        a = sum;
    }
    h[0] += a;
    h[1] += b;
    h[2] += c;
    h[3] += d;
    h[4] += e;
}
