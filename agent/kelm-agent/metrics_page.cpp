// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/metrics_page.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

#include "libkelm/names.h"

namespace kelm_agent
{

namespace
{

std::string escaped(const std::string &text)
{
    std::string out;
    for (const char c : text) {
        if (c == '\\' || c == '"')
            out += '\\';
        if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

// Enough digits for a wall-clock time in microseconds.
void add_number(std::string &out, double number)
{
    constexpr int digits = 16;
    std::array<char, 40> text;
    char *const end =
        std::to_chars(text.begin(), text.end(), number, std::chars_format::general, digits).ptr;
    out += std::isnan(number) ? std::string_view("NaN") : std::string_view(text.data(), end);
}

double seconds(kelm_microsecs interval)
{
    return static_cast<double>(interval) / 1e6;
}

double seconds(wall_time time)
{
    return std::chrono::duration<double>(time.time_since_epoch()).count();
}

double seconds(kelm_time time)
{
    return time.sec + time.nsec / 1e9;
}

using measure = std::optional<double>; // nothing where the metric does not apply

struct metric {
    const char *name; // without the common prefix
    const char *type;
    const char *help;
    measure (*of)(const session_driver &, const counters &);
};

template<auto Field>
measure received(const session_driver &, const counters &counted)
{
    return counted.received ? static_cast<double>((*counted.received).*Field) : 0;
}

template<auto Field>
measure sent(const session_driver &, const counters &counted)
{
    return counted.sent ? static_cast<double>((*counted.sent).*Field) : 0;
}

measure last_received(const session_driver &, const counters &counted)
{
    return counted.received ? seconds(counted.received->last_rx_time) : 0;
}

measure round_trip(const session_driver &driver, const counters &counted)
{
    if (driver.config().kind != session_kind::echo)
        return std::nullopt;
    const kelm_microsecs last = counted.received ? counted.received->last_rtt : 0;
    return last != 0 ? seconds(last) : std::nan("");
}

template<typename Get>
constexpr auto of_driver(Get)
{
    return [](const session_driver &driver, const counters &) -> measure {
        return static_cast<double>(Get()(driver));
    };
}

constexpr metric table[] = {
    {"up", "gauge", "Whether the session is Up.",
     of_driver([](const session_driver &d) { return d.bfd().is_up() ? 1 : 0; })},
    {"diagnostic", "gauge", "Why the state last changed: a diagnostic of RFC 5880 section 4.1.",
     of_driver([](const session_driver &d) { return d.bfd().state().diag; })},
    {"state_timestamp_seconds", "gauge", "When the state last changed.",
     of_driver([](const session_driver &d) { return seconds(d.past().since); })},
    {"up_transitions_total", "counter", "How often the session has entered Up.",
     of_driver([](const session_driver &d) { return d.past().up_count; })},
    {"down_transitions_total", "counter", "How often the session has left Up.",
     of_driver([](const session_driver &d) { return d.past().down_count; })},
    {"transmit_interval_seconds", "gauge",
     "Negotiated interval between our packets, before jitter.",
     of_driver(
         [](const session_driver &d) { return seconds(d.bfd().timing().transmit_interval()); })},
    {"detection_time_seconds", "gauge", "Negotiated detection time.",
     of_driver([](const session_driver &d) { return seconds(d.bfd().timing().detection_time()); })},
    {"last_received_timestamp_seconds", "gauge", "When the last packet was accepted.",
     last_received},
    {"received_packets_total", "counter", "Packets accepted.",
     received<&kelm_msg_rx_stats::num_received>},
    {"rejected_packets_total", "counter",
     "Packets that failed the authentication, TTL or interface check.",
     received<&kelm_msg_rx_stats::num_auth_fail>},
    {"timeouts_total", "counter", "Expiries of the detection timer.",
     received<&kelm_msg_rx_stats::num_timeout>},
    {"sent_packets_total", "counter", "Packets sent on schedule.",
     sent<&kelm_msg_tx_stats::num_sent>},
    {"send_errors_total", "counter", "Packets that could not be sent.",
     sent<&kelm_msg_tx_stats::num_tx_errors>},
    {"round_trip_seconds", "gauge",
     "Round-trip time of the last echo packet, NaN before the first.", round_trip},
};

std::string labels_of(const session_config &config)
{
    return "session=\"" + escaped(config.name) + "\",namespace=\"" + escaped(config.netns) +
           "\",peer=\"" + config.peer.text() + "\",type=\"" + kind_name(config.kind) + "\"";
}

void add_head(std::string &out, const std::string &name, const char *type, const char *help)
{
    out += "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

void add_gauge(std::string &out, const std::string &name, const char *help, double value)
{
    add_head(out, name, "gauge", help);
    out += name + " ";
    add_number(out, value);
    out += "\n";
}

constexpr struct {
    const char *name, *type, *help;
    std::uint64_t namespace_report::*value;
} namespace_table[] = {
    {"kelm_agent_connected", "gauge", "Whether the agent is connected to kelm.",
     &namespace_report::connected},
    {"kelm_agent_waiting_sessions", "gauge", "Sessions with events that have not been acted on.",
     &namespace_report::waiting},
    {"kelm_agent_event_overruns_total", "counter",
     "Times that events of kelm were lost because the queue was full.",
     &namespace_report::overruns},
    {"kelm_agent_lost_sessions_total", "counter",
     "Sessions that kelm no longer had and that were made again.", &namespace_report::lost},
};

} // namespace

struct metrics_page::sample {
    std::string labels;
    std::uint8_t state;
    std::array<measure, std::size(table)> values;
};

metrics_page::metrics_page(const agent &of, const last_reload &reload)
    : agent_(of), reload_(reload), names_(of.sessions().names())
{
}
metrics_page::~metrics_page() = default;

bool metrics_page::step()
{
    if (sampled_ < names_.size())
        take_sample(names_[sampled_++]);
    else if (written_ < std::size(table))
        add_metric(written_++);
    else
        return false;
    if (written_ == std::size(table)) {
        add_states();
        add_sessions();
        add_namespaces();
        add_agent();
    }
    return true;
}

// The session may have gone meanwhile.
void metrics_page::take_sample(const std::string &name)
{
    const session_driver *const driver = agent_.sessions().find(name);
    if (driver == nullptr)
        return;
    sample &taken = samples_.emplace_back(labels_of(driver->config()), driver->bfd().state().state);
    for (std::size_t i = 0; i < std::size(table); ++i)
        taken.values[i] = table[i].of(*driver, agent_.counted(*driver));
}

void metrics_page::add_metric(std::size_t number)
{
    const metric &what = table[number];
    const std::string name = std::string("kelm_agent_session_") + what.name;
    add_head(text_, name, what.type, what.help);
    for (const sample &each : samples_) {
        if (!each.values[number])
            continue;
        text_.append(name).append("{").append(each.labels).append("} ");
        add_number(text_, *each.values[number]);
        text_ += '\n';
    }
}

void metrics_page::add_states()
{
    const std::string name = "kelm_agent_session_state";
    add_head(text_, name, "gauge", "1 for the session's current state, 0 for the others.");
    for (const sample &each : samples_)
        for (const auto &state : kelm::state_names)
            text_.append(name)
                .append("{")
                .append(each.labels)
                .append(",state=\"")
                .append(state.name)
                .append(each.state == state.number ? "\"} 1\n" : "\"} 0\n");
}

void metrics_page::add_sessions()
{
    const std::string name = "kelm_agent_sessions";
    add_head(text_, name, "gauge", "Sessions in this state.");
    for (const auto &state : kelm::state_names)
        text_ += name + "{state=\"" + std::string(state.name) + "\"} " +
                 std::to_string(std::ranges::count(samples_, state.number, &sample::state)) + "\n";
}

void metrics_page::add_namespaces()
{
    const auto reports = agent_.report_by_namespace();
    for (const auto &[name, type, help, value] : namespace_table) {
        add_head(text_, name, type, help);
        for (const auto &each : reports)
            text_ += std::string(name) + "{namespace=\"" + escaped(each.netns) + "\"} " +
                     std::to_string(each.*value) + "\n";
    }
}

void metrics_page::add_agent()
{
    add_head(text_, "kelm_agent_build_info", "gauge", "Always 1; tells the agent's version.");
    text_ += "kelm_agent_build_info{version=\"" KELM_VERSION "\"} 1\n";
    add_gauge(text_, "kelm_agent_config_last_reload_successful",
              "Whether the configuration file was valid when it was last read.",
              reload_.was_successful ? 1 : 0);
    add_gauge(text_, "kelm_agent_config_last_reload_success_timestamp_seconds",
              "When the configuration was last read and valid.", seconds(reload_.succeeded));
}

} // namespace kelm_agent
