// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/json_writer.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace kelm_agent
{

namespace
{

// Characters that stand for themselves.
bool is_plain(char c)
{
    return c >= ' ' && c <= '~' && c != '"' && c != '\\';
}

} // namespace

void json_writer::begin(std::string_view key, char bracket)
{
    separate(key);
    text_ += bracket;
    needs_comma_ = false;
}

void json_writer::end(char bracket)
{
    text_ += bracket;
    needs_comma_ = true;
}

void json_writer::separate(std::string_view key)
{
    if (needs_comma_)
        text_ += ',';
    needs_comma_ = true;
    if (key.empty())
        return;
    quote(key);
    text_ += ':';
}

void json_writer::quote(std::string_view text)
{
    using nlohmann::json;
    if (std::ranges::all_of(text, is_plain))
        text_.append(1, '"').append(text).append(1, '"');
    else
        text_ += json(text).dump(-1, ' ', false, json::error_handler_t::replace);
}

void json_writer::add_raw(std::string_view key, std::string_view value)
{
    separate(key);
    text_ += value;
}

void json_writer::add(std::string_view key, std::string_view text)
{
    separate(key);
    quote(text);
}

} // namespace kelm_agent
