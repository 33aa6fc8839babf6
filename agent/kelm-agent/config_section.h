// SPDX-License-Identifier: GPL-2.0
//
// One table of the configuration file, read key by key. Each accessor checks type and range, and
// throws config_error with the place of what is wrong.
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
    // `defaults`, which outlives the section, has the values of keys that the table lacks.
    config_section(const toml::table &table, std::string file,
                   const toml::table *defaults = nullptr)
        : table_(table), file_(std::move(file)), defaults_(defaults)
    {
    }

    // Null if there is no such key. What is asked for is known to exist.
    const toml::node *find(std::string_view key);
    // The same without the defaults.
    const toml::node *find_own(std::string_view key);
    const toml::node &require(std::string_view key);

    std::string text(std::string_view key, std::string otherwise);
    bool flag(std::string_view key, bool otherwise);
    std::int64_t number(std::string_view key, std::int64_t least, std::int64_t most,
                        std::int64_t otherwise);
    kelm_microsecs duration(std::string_view key, kelm_microsecs otherwise);
    // Of one host: no unspecified, multicast or broadcast address.
    std::optional<kelm::ip_address> address(std::string_view key);

    // Of a value that has been found.
    std::string as_text(const toml::node &, std::string_view key) const;
    std::int64_t as_number(const toml::node &, std::string_view key, std::int64_t least,
                           std::int64_t most) const;
    const toml::table &as_table(const toml::node &, std::string_view key) const;
    const toml::array &as_array(const toml::node &, std::string_view key) const;

    // Complains about the first key that nobody has asked for.
    void expect_no_more() const;

    [[noreturn]] void fail(const toml::node &at, const std::string &text) const;
    [[noreturn]] void fail(const std::string &text) const { fail(table_, text); }

    const std::string &file() const { return file_; }

  private:
    const toml::table &table_;
    std::string file_;
    const toml::table *defaults_;
    std::set<std::string, std::less<>> known_;
};

} // namespace kelm_agent
