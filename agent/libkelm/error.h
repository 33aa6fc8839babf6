// SPDX-License-Identifier: GPL-2.0
//
// How libkelm reports failure: exceptions that carry the error number and a sentence for people,
// which says what was wrong and, where that helps, what to do.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace kelm
{

// Every failure of the library.
class error : public std::runtime_error
{
  public:
    // `number` is a positive errno value.
    error(int number, const std::string &text) : std::runtime_error(text), number_(number) {}

    // A positive errno value, as the one that the constructor got.
    int number() const noexcept { return number_; }

  private:
    int number_;
};

// kelm itself refused a request.
class refused : public error
{
  public:
    // `number` is the positive errno value of kelm's answer.
    refused(std::uint16_t message_type, std::uint32_t discriminator, int number);

    // kelm_message_numbers: that of the request.
    std::uint16_t message_type() const noexcept { return message_type_; }

  private:
    std::uint16_t message_type_;
};

// Throws error with "<what>: <text of number> (<NAME>)".
[[noreturn]] void throw_errno(int number, const std::string &what);

// What the positive error number means as the answer to a request of this message type. Empty if
// it has no meaning of its own there.
std::string explain(std::uint16_t message_type, int number);

// "Invalid argument (EINVAL)"
std::string errno_text(int number);

} // namespace kelm
