// SPDX-License-Identifier: GPL-2.0
#pragma once

#include "kelmctl/arguments.h"
#include "libkelm/packet.h"

namespace kelmctl
{

// "auth TYPE key-id N key-file FILE": the type, and a key where the type has one.
constexpr parameter auth_parameters[] = {
    {"auth", "TYPE",
     "none, password, keyed-md5, meticulous-md5, keyed-sha1, meticulous-sha1 or\n"
     "debug-seqnum (default none)",
     &kelm::auth_type_names},
    {"key-id", "N", "the key's number on the wire, 0 to 255 (default 1)"},
    {"key-file", "FILE",
     "file that holds the key: a password of up to 16 bytes, up to 16 bytes for\n"
     "MD5 or 20 for SHA-1; - reads standard input"},
};

bool has_key(std::uint8_t auth_type);

// Reads the key. Throws usage_error, or kelm::error when the key does not fit.
kelm::auth_settings auth_argument(const arguments &);

// A further key of the same type, as "key2-id N key2-file FILE", if there is one.
std::optional<kelm::auth_settings> second_key_argument(const arguments &, std::uint8_t auth_type);

} // namespace kelmctl
