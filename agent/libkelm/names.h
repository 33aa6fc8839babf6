// SPDX-License-Identifier: GPL-2.0
//
// Words for the protocol's numbers, as people type and read them.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace kelm
{

// A number and its word, a literal.
struct number_name {
    std::uint32_t number;
    std::string_view name;
};

using name_table = std::span<const number_name>;

extern const name_table state_names;        // bfd_states
extern const name_table diagnostic_names;   // bfd_diagnostics
extern const name_table auth_type_names;    // bfd_auth_types
extern const name_table jitter_names;       // bfd_tx_jitter_types
extern const name_table session_type_names; // kelm_rx_session_types

// The number itself, in digits, where the table has no name for it.
std::string name_of(name_table, std::uint32_t number);
// The same for a sentence: words without hyphens.
std::string text_of(name_table, std::uint32_t number);
// Nothing where the table does not have the name.
std::optional<std::uint32_t> number_of(name_table, std::string_view name);
// "down, init, up"
std::string all_names(name_table);

} // namespace kelm
