// SPDX-License-Identifier: GPL-2.0
//
// MD5 (RFC 1321).
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {

// Writes the 16-byte digest of the `datalen` bytes at `data`, which `digest` may point into.
// `init` is null, or holds four chaining values to start from instead of RFC 1321's: those of a
// message whose first blocks have been absorbed already. `totallen` is the length of the whole
// message in bytes, equal to `datalen` unless `init` is given. No state; any context.
void kelm_md5_cksum(const void *data, std::size_t datalen, std::size_t totallen,
                    std::uint8_t *digest, const std::uint32_t *init);
}
