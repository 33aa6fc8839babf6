// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/state_file.h"

#include <filesystem>
#include <limits>
#include <nlohmann/json.hpp>

#include "kelm-agent/json_writer.h"
#include "kelm-agent/whole_file.h"

namespace kelm_agent
{

namespace
{

using nlohmann::json;

constexpr int format_version = 1;

std::int64_t to_us(wall_time time)
{
    return std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
}

// The library converts without checking the range.
template<typename T>
T number_at(const json &from, const char *key, T largest = std::numeric_limits<T>::max())
{
    const json &value = from.at(key);
    if (!value.is_number_unsigned() || value.get<std::uint64_t>() > std::uint64_t{largest})
        throw std::runtime_error(std::string(key) + " is out of range");
    return value.get<T>();
}

wall_time time_at(const json &from, const char *key)
{
    constexpr auto latest = std::chrono::floor<std::chrono::microseconds>(wall_time::max());
    const auto us =
        number_at<std::uint64_t>(from, key, std::uint64_t{latest.time_since_epoch().count()});
    return wall_time(std::chrono::microseconds(us));
}

void add_session(json_writer &out, const std::string &name, const saved_session &saved)
{
    out.begin_object(name);
    out.add("identity", saved.identity);
    out.add("netns", saved.netns);
    out.add("discriminator", saved.discriminator);
    out.add("state", saved.state);
    out.add("admin_down", saved.admin_down);
    out.add("tx_us", saved.in_effect.desired_min_tx);
    out.add("rx_us", saved.in_effect.required_min_rx);
    out.add("since_us", to_us(saved.past.since));
    out.add("up_count", saved.past.up_count);
    out.add("down_count", saved.past.down_count);
    out.add("last_down_us", to_us(saved.past.last_down));
    out.add("last_down_diag", saved.past.last_down_diag);
    out.add("last_down_reason", saved.past.last_down_reason);
    out.end_object();
}

saved_session session_from(const json &from)
{
    saved_session saved;
    from.at("identity").get_to(saved.identity);
    from.at("netns").get_to(saved.netns);
    saved.discriminator = number_at<std::uint32_t>(from, "discriminator");
    saved.state = number_at<std::uint8_t>(from, "state", BFD_STATE_UP);
    from.at("admin_down").get_to(saved.admin_down);
    saved.in_effect = {number_at<kelm_microsecs>(from, "tx_us"),
                       number_at<kelm_microsecs>(from, "rx_us")};
    saved.past.since = time_at(from, "since_us");
    saved.past.up_count = number_at<std::uint64_t>(from, "up_count");
    saved.past.down_count = number_at<std::uint64_t>(from, "down_count");
    saved.past.last_down = time_at(from, "last_down_us");
    saved.past.last_down_diag = number_at<std::uint8_t>(from, "last_down_diag");
    from.at("last_down_reason").get_to(saved.past.last_down_reason);
    return saved;
}

saved_state state_from(const json &from)
{
    if (from.at("version") != format_version)
        throw std::runtime_error("written by another version of kelm-agent");
    saved_state state;
    for (const auto &[name, saved] : from.at("sessions").items())
        state.sessions.emplace(name, session_from(saved));
    for (const auto &each : from.at("orphans"))
        state.orphans.insert({each.at("netns"), number_at<std::uint32_t>(each, "discriminator")});
    return state;
}

} // namespace

saved_state load_state(const std::string &path)
{
    if (!std::filesystem::exists(path))
        return {};
    try {
        return state_from(json::parse(read_whole_file(path)));
    } catch (const json::exception &problem) {
        throw std::runtime_error(problem.what());
    }
}

void save_state(const std::string &path, const saved_state &state)
{
    json_writer out;
    out.begin_object();
    out.add("version", format_version);
    out.begin_object("sessions");
    for (const auto &[name, saved] : state.sessions)
        add_session(out, name, saved);
    out.end_object();
    out.begin_array("orphans");
    for (const auto &each : state.orphans) {
        out.begin_object();
        out.add("netns", each.netns);
        out.add("discriminator", each.discriminator);
        out.end_object();
    }
    out.end_array();
    out.end_object();
    replace_whole_file(path, out.take() + "\n", 0600);
}

} // namespace kelm_agent
