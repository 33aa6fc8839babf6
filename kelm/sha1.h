// SPDX-License-Identifier: GPL-2.0
//
// SHA-1 (FIPS 180-1) over a message that may come in pieces:
// kelm_sha1_init, any number of kelm_sha1_loop, kelm_sha1_result.
#pragma once

#include <cstddef>
#include <cstdint>

// The state of one computation, owned by the caller.
struct kelm_sha1_ctxt {
    union {
        std::uint8_t b8[20];
        std::uint32_t b32[5];
    } h; // chaining values
    union {
        std::uint8_t b8[8];
        std::uint64_t b64[1];
    } c; // message bits absorbed
    union {
        std::uint8_t b8[64];
        std::uint32_t b32[16];
    } m;                // the block that is filling up
    std::uint8_t count; // bytes in m, always below 64
};

using SHA1_CTX = kelm_sha1_ctxt;

// No state but the caller's; any context.
extern "C" {

void kelm_sha1_init(kelm_sha1_ctxt *ctxt);

// Absorbs `len` bytes.
void kelm_sha1_loop(kelm_sha1_ctxt *ctxt, const void *input0, std::size_t len);

// Absorbs the padding and the bit count that end the message.
void kelm_sha1_pad(kelm_sha1_ctxt *ctxt);

// Pads, then writes the 20-byte digest to `digest0`. The context is spent.
void kelm_sha1_result(kelm_sha1_ctxt *ctxt, void *digest0);

// Compresses the full block m into h; what m holds afterwards is meaningless.
void kelm_sha1_step(kelm_sha1_ctxt *ctxt);
}
