// SPDX-License-Identifier: GPL-2.0
#pragma once

#include <map>
#include <optional>
#include <vector>

#include "kelmctl/command.h"
#include "kelmctl/values.h"

namespace kelmctl
{

// The words of one command line, sorted by what the command's table says. Values are checked when
// they are asked for. Everything throws usage_error.
class arguments
{
  public:
    arguments(const command &, std::span<char *const> words);

    std::optional<std::uint32_t> discriminator(std::size_t index = 0) const;
    std::uint32_t required_discriminator() const { return *discriminator(); } // it has been checked
    std::optional<std::string> operand(std::size_t index) const;
    const std::vector<std::string> &operands() const { return operands_; }

    bool has(std::string_view name) const { return values_.contains(name); }
    std::optional<std::string> text(std::string_view name) const;
    std::optional<std::uint32_t> number(std::string_view name, std::uint32_t least,
                                        std::uint32_t most) const;
    std::optional<kelm_microsecs> duration(std::string_view name) const;
    std::optional<std::uint32_t> choice(std::string_view name, kelm::name_table names) const;
    std::optional<bool> on_off(std::string_view name) const;
    std::optional<kelm::ip_address> address(std::string_view name) const;
    std::optional<kelm::mac_address> mac(std::string_view name) const;

    // For a value that the command cannot do without.
    template<typename T>
    static T required(std::string_view name, const std::optional<T> &value)
    {
        if (!value)
            throw usage_error("'" + std::string(name) + "' is missing");
        return *value;
    }

  private:
    std::vector<std::string> operands_;
    std::map<std::string, std::string, std::less<>> values_; // by parameter name
};

} // namespace kelmctl
