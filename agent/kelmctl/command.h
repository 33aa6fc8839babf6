// SPDX-License-Identifier: GPL-2.0
//
// The shape of kelmctl's command table. Parsing, help and dispatch all come from it.
#pragma once

#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

#include "libkelm/names.h"

namespace kelmctl
{

class arguments;
class context;

// An error in the command line; exit status 2.
class usage_error : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

// "name" alone, or "name VALUE".
struct parameter {
    std::string_view name;
    std::string_view value; // what help calls the value; empty for a word that stands alone
    std::string_view help;
    const kelm::name_table *choices = nullptr; // the values that there are
};

struct command {
    std::string_view name;
    // Words without a name, "DISCRIMINATOR [LEVEL]": optional ones last; "SESSION...": one or more.
    std::string_view operands;
    std::string_view help; // one line, or several
    std::span<const parameter> parameters;
    void (*run)(context &, const arguments &);
};

struct object {
    std::string_view name;
    std::string_view help;
    std::span<const command> commands; // the first is what the object's name alone does
    bool acts_alone = true;            // or not, where that would change something
};

extern const std::span<const object> objects;

// By name or unambiguous beginning of it. Throws usage_error.
const object &find_object(std::string_view name);

// The command that the words after the object ask for; its name is taken from them. Where they
// begin with an argument of the first command, it is that one. Throws usage_error.
const command &take_command(const object &, std::span<char *const> &words);

} // namespace kelmctl
