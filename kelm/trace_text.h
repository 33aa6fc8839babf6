// SPDX-License-Identifier: GPL-2.0
//
// Builds a diagnostic text in a buffer on the stack. The protocol library formats its own texts
// because it has no printf on the hosts that it must also run on.
#pragma once

#include <cstddef>
#include <cstdint>

struct hex_byte {
    std::uint8_t value;
};

// A NUL-terminated text of at most size - 1 characters; what does not fit is cut off.
template<std::size_t size>
class trace_text
{
  public:
    trace_text() { text_[0] = '\0'; }

    trace_text &operator<<(const char *text)
    {
        while (*text != '\0')
            append(*text++);
        return *this;
    }

    trace_text &operator<<(std::uint32_t number)
    {
        char digits[10];
        std::size_t count = 0;
        do
            digits[count++] = static_cast<char>('0' + number % 10);
        while ((number /= 10) != 0);
        while (count != 0)
            append(digits[--count]);
        return *this;
    }

    trace_text &operator<<(hex_byte byte)
    {
        constexpr const char *digits = "0123456789abcdef";
        append(digits[byte.value >> 4]);
        append(digits[byte.value & 0xf]);
        return *this;
    }

    [[nodiscard]] const char *c_str() const { return text_; }

  private:
    void append(char c)
    {
        if (length_ + 1 == size)
            return;
        text_[length_++] = c;
        text_[length_] = '\0';
    }

    std::size_t length_ = 0;
    char text_[size];
};
