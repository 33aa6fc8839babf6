// SPDX-License-Identifier: GPL-2.0
//
// MD5 (RFC 1321). A computation lives on the stack of its one call.
#include "md5.h"

#include <bit>
#include <cstring>

#include "wipe.h"

namespace
{

constexpr std::size_t block_size = 64;
constexpr std::size_t length_offset = 56; // of the bit count within the last block

constexpr std::uint32_t initial_state[4] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};

// floor(2^32 * abs(sin(i + 1)))
constexpr std::uint32_t sines[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

constexpr int rotations[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

std::uint32_t load_le32(const std::uint8_t *from)
{
    return static_cast<std::uint32_t>(from[0]) | static_cast<std::uint32_t>(from[1]) << 8 |
           static_cast<std::uint32_t>(from[2]) << 16 | static_cast<std::uint32_t>(from[3]) << 24;
}

void store_le32(std::uint8_t *to, std::uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        to[i] = static_cast<std::uint8_t>(value >> 8 * i);
}

void compress(std::uint32_t state[4], const std::uint8_t block[block_size])
{
    std::uint32_t words[16];
    for (std::size_t i = 0; i < 16; ++i)
        words[i] = load_le32(block + 4 * i);

    std::uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    for (std::size_t i = 0; i < 64; ++i) {
        std::uint32_t mix;
        std::size_t word;
        switch (i / 16) {
        case 0:
            mix = (b & c) | (~b & d);
            word = i;
            break;
        case 1:
            mix = (b & d) | (c & ~d);
            word = 5 * i + 1;
            break;
        case 2:
            mix = b ^ c ^ d;
            word = 3 * i + 5;
            break;
        default:
            mix = c ^ (b | ~d);
            word = 7 * i;
            break;
        }
        const std::uint32_t turned =
            std::rotl(a + mix + sines[i] + words[word % 16], rotations[i / 16][i % 4]);
        a = d;
        d = c;
        c = b;
        b += turned;
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
}

// Absorbs the data and the padding that ends a message of `totallen` bytes.
void md5_cksum_block(const std::uint8_t *data, std::size_t datalen, std::size_t totallen,
                     std::uint32_t results[4])
{
    for (; datalen >= block_size; data += block_size, datalen -= block_size)
        compress(results, data);

    std::uint8_t last[block_size] = {};
    if (datalen != 0)
        std::memcpy(last, data, datalen);
    last[datalen] = 0x80;
    if (datalen >= length_offset) {
        compress(results, last);
        std::memset(last, 0, sizeof last);
    }
    const std::uint64_t bits = static_cast<std::uint64_t>(totallen) * 8;
    store_le32(last + length_offset, static_cast<std::uint32_t>(bits));
    store_le32(last + length_offset + 4, static_cast<std::uint32_t>(bits >> 32));
    compress(results, last);
    wipe(last, sizeof last);
}

} // namespace

void kelm_md5_cksum(const void *data, std::size_t datalen, std::size_t totallen,
                    std::uint8_t *digest, const std::uint32_t *init)
{
    std::uint32_t state[4];
    std::memcpy(state, init != nullptr ? init : initial_state, sizeof state);
    md5_cksum_block(static_cast<const std::uint8_t *>(data), datalen, totallen, state);
    for (std::size_t i = 0; i < 4; ++i)
        store_le32(digest + 4 * i, state[i]);
}
