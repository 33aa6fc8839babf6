// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/metrics.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>

#include "kelm-agent/whole_file.h"
#include "libkelm/error.h"
#include "libkelm/names.h"

namespace kelm_agent
{

namespace
{

constexpr std::chrono::seconds file_interval{10};

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
std::string number(double value)
{
    if (std::isnan(value))
        return "NaN";
    char text[40];
    std::snprintf(text, sizeof text, "%.16g", value);
    return text;
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

struct sample {
    const session_driver &driver;
    const counters &counted;

    const session &bfd() const { return driver.bfd(); }
    bool measures_round_trips() const { return bfd().config().kind == session_kind::echo; }
};

struct metric {
    const char *name; // without the common prefix
    const char *type;
    const char *help;
    double (*value)(const sample &);
    bool (*applies)(const sample &) = nullptr; // null: to all
};

template<auto Field>
double received(const sample &s)
{
    return s.counted.received ? static_cast<double>((*s.counted.received).*Field) : 0;
}

template<auto Field>
double sent(const sample &s)
{
    return s.counted.sent ? static_cast<double>((*s.counted.sent).*Field) : 0;
}

double last_received(const sample &s)
{
    return s.counted.received ? seconds(s.counted.received->last_rx_time) : 0;
}

double round_trip(const sample &s)
{
    const kelm_microsecs last = s.counted.received ? s.counted.received->last_rtt : 0;
    return last != 0 ? seconds(last) : std::nan("");
}

constexpr metric table[] = {
    {"up", "gauge", "Whether the session is Up.",
     [](const sample &s) { return s.bfd().is_up() ? 1.0 : 0.0; }},
    {"diagnostic", "gauge", "Why the state last changed: a diagnostic of RFC 5880 section 4.1.",
     [](const sample &s) { return double{static_cast<double>(s.bfd().state().diag)}; }},
    {"state_timestamp_seconds", "gauge", "When the state last changed.",
     [](const sample &s) { return seconds(s.driver.past().since); }},
    {"up_transitions_total", "counter", "How often the session has entered Up.",
     [](const sample &s) { return static_cast<double>(s.driver.past().up_count); }},
    {"down_transitions_total", "counter", "How often the session has left Up.",
     [](const sample &s) { return static_cast<double>(s.driver.past().down_count); }},
    {"transmit_interval_seconds", "gauge",
     "Negotiated interval between our packets, before jitter.",
     [](const sample &s) { return seconds(s.bfd().timing().transmit_interval()); }},
    {"detection_time_seconds", "gauge", "Negotiated detection time.",
     [](const sample &s) { return seconds(s.bfd().timing().detection_time()); }},
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
     "Round-trip time of the last echo packet, NaN before the first.", round_trip,
     [](const sample &s) { return s.measures_round_trips(); }},
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

void add_metric(std::string &out, const metric &what, const std::vector<sample> &samples)
{
    const std::string name = std::string("kelm_agent_session_") + what.name;
    add_head(out, name, what.type, what.help);
    for (const auto &each : samples)
        if (what.applies == nullptr || what.applies(each))
            out += name + "{" + labels_of(each.bfd().config()) + "} " + number(what.value(each)) +
                   "\n";
}

void add_states(std::string &out, const std::vector<sample> &samples)
{
    const std::string name = "kelm_agent_session_state";
    add_head(out, name, "gauge", "1 for the session's current state, 0 for the others.");
    for (const auto &each : samples)
        for (const auto &state : kelm::state_names)
            out += name + "{" + labels_of(each.bfd().config()) + ",state=\"" +
                   std::string(state.name) + "\"} " +
                   (each.bfd().state().state == state.number ? "1" : "0") + "\n";
}

void add_namespace_counter(std::string &out, const std::string &name, const char *help,
                           const std::vector<namespace_counters> &all,
                           std::uint64_t namespace_counters::*value)
{
    add_head(out, name, "counter", help);
    for (const auto &each : all)
        out += name + "{namespace=\"" + escaped(each.netns) + "\"} " + std::to_string(each.*value) +
               "\n";
}

std::string http_response(const char *status, const std::string &body)
{
    return std::string("HTTP/1.1 ") + status +
           "\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

kelm::unique_fd listen_at(const endpoint &at)
{
    kelm::unique_fd fd(socket(at.address.family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_storage address = {};
    socklen_t length = sizeof(sockaddr_in);
    if (at.address.family == AF_INET) {
        sockaddr_in v4 = {};
        v4.sin_family = AF_INET;
        v4.sin_port = htons(at.port);
        std::memcpy(&v4.sin_addr, at.address.octets.data(), sizeof v4.sin_addr);
        std::memcpy(&address, &v4, sizeof v4);
    } else {
        sockaddr_in6 v6 = {};
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(at.port);
        std::memcpy(&v6.sin6_addr, at.address.octets.data(), sizeof v6.sin6_addr);
        std::memcpy(&address, &v6, sizeof v6);
        length = sizeof v6;
    }
    const int yes = 1;
    if (!fd || setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) != 0 ||
        bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), length) != 0 ||
        listen(fd.get(), SOMAXCONN) != 0)
        kelm::throw_errno(errno, "cannot serve metrics on " + at.address.text() + " port " +
                                     std::to_string(at.port));
    return fd;
}

} // namespace

std::string metrics_text(const agent &running)
{
    std::vector<sample> samples;
    for (const auto &[name, driver] : running.sessions().all())
        samples.push_back({*driver, running.counted(*driver)});
    std::string out;
    for (const auto &each : table)
        add_metric(out, each, samples);
    add_states(out, samples);
    const auto by_namespace = running.counted_by_namespace();
    add_namespace_counter(out, "kelm_agent_event_overruns_total",
                          "Times that events of kelm were lost because the queue was full.",
                          by_namespace, &namespace_counters::overruns);
    add_namespace_counter(out, "kelm_agent_lost_sessions_total",
                          "Sessions that kelm no longer had and that were made again.",
                          by_namespace, &namespace_counters::lost);
    return out;
}

bool answer_http(agent &running, const std::string &received, stream_server::reply reply)
{
    if (received.find("\r\n\r\n") == std::string::npos)
        return false;
    if (!received.starts_with("GET "))
        reply(http_response("405 Method Not Allowed", "only GET is served\n"));
    else if (!received.starts_with("GET /metrics ") && !received.starts_with("GET /metrics?"))
        reply(http_response("404 Not Found", "see /metrics\n"));
    else
        running.refresh_statistics(running.sessions().names(), [&running, reply] {
            reply(http_response("200 OK", metrics_text(running)));
        });
    return true;
}

void metrics_exporter::configure(const agent_config &config)
{
    file_ = config.metrics_file;
    timer_ = {};
    if (!file_.empty())
        write_file();
    if (listening_ == config.metrics_listen)
        return;
    server_.reset();
    listening_ = config.metrics_listen;
    if (listening_)
        listen(*listening_);
}

void metrics_exporter::listen(const endpoint &at)
{
    try {
        server_.emplace(loop_, listen_at(at), [this](const std::string &received, auto reply) {
            return answer_http(running_, received, std::move(reply));
        });
    } catch (const kelm::error &problem) {
        log_.error(problem.what());
        listening_.reset();
    }
}

void metrics_exporter::write_file()
{
    running_.refresh_statistics(running_.sessions().names(), [this] { replace_file(); });
    timer_ = loop_.after(file_interval, [this] { write_file(); });
}

void metrics_exporter::replace_file()
{
    constexpr mode_t for_all_to_read = 0644;
    if (file_.empty())
        return; // no longer wanted
    try {
        replace_whole_file(file_, metrics_text(running_), for_all_to_read);
    } catch (const kelm::error &problem) {
        log_.error(std::string("metrics: ") + problem.what());
    }
}

} // namespace kelm_agent
