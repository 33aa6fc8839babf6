// SPDX-License-Identifier: GPL-2.0
//
// Values as people type them. Each function throws usage_error with `what`, the parameter's name,
// when the text is no such value.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "kelm.h"
#include "libkelm/address.h"
#include "libkelm/names.h"

namespace kelmctl
{

// Decimal, or hexadecimal with 0x.
std::uint32_t parse_number(std::string_view what, const std::string &text, std::uint32_t least,
                           std::uint32_t most);
// "300ms", "1.5s", "250us"; the unit may only be missing from 0.
kelm_microsecs parse_duration(std::string_view what, const std::string &text);
std::uint32_t parse_name(std::string_view what, kelm::name_table names, const std::string &text);
bool parse_switch(std::string_view what, const std::string &text); // "on" or "off"
kelm::ip_address parse_address(std::string_view what, const std::string &text);
kelm::mac_address parse_mac(std::string_view what, const std::string &text);
std::uint32_t parse_discriminator(const std::string &text);               // not 0
std::vector<std::uint32_t> parse_discriminators(const std::string &text); // separated by commas

// A secret from a file, "-" for standard input. One line break at the end does not count. Throws
// kelm::error when it cannot be read.
kelm::bytes read_key(const std::string &path);

} // namespace kelmctl
