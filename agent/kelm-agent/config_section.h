// SPDX-License-Identifier: GPL-2.0
//
// One table of the configuration file, read key by key. Each accessor checks type and range, and
// throws config_error with file and line of the mistake.
#pragma once

#include <functional>
#include <set>
#include <toml++/toml.h>

#include "kelm-agent/config.h"

namespace kelm_agent
{

class config_section
{
  public:
    // The others, which outlive the section, provide values for missing keys: the first one that
    // has it.
    config_section(const toml::table &table, std::string file,
                   std::vector<const toml::table *> others = {})
        : table_(table), file_(std::move(file)), others_(std::move(others))
    {
    }

    // Null if the key is missing. Registers the key as a known one.
    const toml::node *find(std::string_view key);
    // The same without the other tables.
    const toml::node *find_own(std::string_view key);
    const toml::node &require(std::string_view key);

    std::string text(std::string_view key, std::string otherwise);
    bool flag(std::string_view key, bool otherwise);
    std::int64_t number(std::string_view key, std::int64_t least, std::int64_t most,
                        std::int64_t otherwise);
    kelm_microsecs duration(std::string_view key, kelm_microsecs otherwise);
    // A unicast address.
    std::optional<kelm::ip_address> address(std::string_view key);

    // Conversions of a value that was found.
    std::string as_text(const toml::node &, std::string_view key) const;
    std::int64_t as_number(const toml::node &, std::string_view key, std::int64_t least,
                           std::int64_t most) const;
    const toml::table &as_table(const toml::node &, std::string_view key) const;
    const toml::array &as_array(const toml::node &, std::string_view key) const;

    // Fails on the first key that was never looked up.
    void expect_no_more() const;

    [[noreturn]] void fail(const toml::node &at, const std::string &text) const;
    [[noreturn]] void fail(const std::string &text) const { fail(table_, text); }

    // The main file, whose directory relative paths begin in.
    const std::string &file() const { return file_; }

  private:
    const toml::table &table_;
    std::string file_;
    std::vector<const toml::table *> others_;
    std::set<std::string, std::less<>> known_;
};

} // namespace kelm_agent
