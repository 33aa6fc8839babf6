// SPDX-License-Identifier: GPL-2.0
//
// JSON, written as it goes along: thousands of records in little time.
#pragma once

#include <concepts>
#include <string>
#include <string_view>
#include <utility>

namespace kelm_agent
{

// Without a key: the outermost value, or an element of an array. What is not UTF-8 in a text is
// replaced.
class json_writer
{
  public:
    void begin_object(std::string_view key = {}) { begin(key, '{'); }
    void end_object() { end('}'); }
    void begin_array(std::string_view key) { begin(key, '['); }
    void end_array() { end(']'); }

    void add(std::string_view key, std::string_view text);
    void add(std::string_view key, const char *text) { add(key, std::string_view(text)); }
    void add(std::string_view key, std::same_as<bool> auto value)
    {
        add_raw(key, value ? "true" : "false");
    }
    template<std::integral T>
    requires(!std::same_as<T, bool>) void add(std::string_view key, T value)
    {
        add_raw(key, std::to_string(value));
    }

    // What has been written since the last call.
    std::string take() { return std::exchange(text_, {}); }
    // The same as a line of its own; another value may follow.
    std::string take_line()
    {
        needs_comma_ = false;
        return take() + "\n";
    }

  private:
    void begin(std::string_view key, char bracket);
    void end(char bracket);
    void separate(std::string_view key);
    void quote(std::string_view text);
    void add_raw(std::string_view key, std::string_view value);

    std::string text_;
    bool needs_comma_ = false;
};

} // namespace kelm_agent
