// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/session_report.h"

#include "kelm-agent/reason.h"
#include "libkelm/names.h"

namespace kelm_agent
{

namespace
{

template<typename Seconds, typename Nanoseconds>
void add_time(json_writer &out, std::string_view key, Seconds sec, Nanoseconds nsec)
{
    out.begin_object(key);
    out.add("sec", sec);
    out.add("nsec", nsec);
    out.end_object();
}

void add_time(json_writer &out, std::string_view key, wall_time time)
{
    using namespace std::chrono;
    const auto ns = duration_cast<nanoseconds>(time.time_since_epoch()).count();
    add_time(out, key, ns / 1'000'000'000, ns % 1'000'000'000);
}

void add_time(json_writer &out, std::string_view key, kelm_time time)
{
    add_time(out, key, time.sec, time.nsec);
}

void add_past(json_writer &out, const history &past)
{
    out.begin_object("changes");
    out.add("up_count", past.up_count);
    out.add("down_count", past.down_count);
    if (past.down_count > 0) {
        add_time(out, "last_down", past.last_down);
        out.add("last_down_diagnostic", diag_words(past.last_down_diag));
        out.add("last_down_reason", past.last_down_reason);
    }
    out.end_object();
}

void add_peer(json_writer &out, const session &bfd)
{
    out.begin_object("remote");
    if (bfd.has_heard_peer()) {
        const peer_timing &peer = bfd.timing().peer();
        out.add("state", state_name(bfd.remote().state));
        out.add("diagnostic", diag_words(bfd.remote().diag));
        out.add("discriminator", bfd.remote_discriminator());
        out.add("multiplier", peer.detect_multiplier);
        out.add("min_tx", peer.desired_min_tx);
        out.add("min_rx", peer.required_min_rx);
        out.add("demand", bfd.remote_demand());
    } else {
        out.add("state", "not heard");
    }
    out.end_object();
}

void add_timing(json_writer &out, const session &bfd)
{
    const negotiation &timing = bfd.timing();
    out.begin_object("timing");
    out.add("min_tx", bfd.config().timing.desired_min_tx);
    out.add("min_rx", bfd.config().timing.required_min_rx);
    out.add("multiplier", bfd.config().multiplier);
    out.add("transmit_interval", timing.transmit_interval());
    if (bfd.has_heard_peer()) {
        out.add("receive_interval", timing.receive_interval());
        out.add("detection_time", timing.detection_time());
    }
    out.add("polling", bfd.polling());
    out.end_object();
}

void add_auth(json_writer &out, const authentication &auth)
{
    out.begin_object("auth");
    out.add("type", kelm::name_of(kelm::auth_type_names, auth.type));
    if (!auth.keys.empty())
        out.add("sent_key", auth.keys.at(auth.sending).id);
    if (auth.keys.size() > 1)
        out.add("other_key", auth.keys.at(1 - auth.sending).id);
    out.end_object();
}

void add_received(json_writer &out, const kelm_msg_rx_stats &received)
{
    out.begin_object("received");
    out.add("packets", received.num_received);
    add_time(out, "last", received.last_rx_time);
    out.add("interval", received.avg_period);
    out.add("longest", received.max_period);
    out.add("timeouts", received.num_timeout);
    out.add("rejected", received.num_auth_fail);
    out.end_object();
    if (received.max_rtt == 0)
        return;
    out.begin_object("rtt");
    out.add("last", received.last_rtt);
    out.add("min", received.min_rtt);
    out.add("avg", received.avg_rtt);
    out.add("max", received.max_rtt);
    out.end_object();
}

void add_sent(json_writer &out, const kelm_msg_tx_stats &sent)
{
    out.begin_object("sent");
    out.add("packets", sent.num_sent);
    out.add("interval", sent.avg_lateness);
    out.add("longest", sent.max_lateness);
    out.add("errors", sent.num_tx_errors);
    out.end_object();
}

void add_event_head(json_writer &out, const char *event, wall_time when,
                    const session_driver &driver)
{
    const session_config &config = driver.config();
    out.begin_object();
    out.add("event", event);
    add_time(out, "time", when);
    out.add("session", config.name);
    out.add("type", kind_name(config.kind));
    out.add("namespace", config.netns);
    out.add("local", config.local.text());
    out.add("peer", config.peer.text());
    out.add("interface", config.interface);
}

} // namespace

void add_state(json_writer &out, const session_driver &driver)
{
    add_event_head(out, "state", driver.past().since, driver);
    out.add("state", state_name(driver.bfd().state().state));
    out.add("diagnostic", diag_words(driver.bfd().state().diag));
    out.end_object();
}

void add_change_of_state(json_writer &out, const session_driver &driver, const change &what)
{
    add_event_head(out, "change", what.when, driver);
    out.add("state", state_name(what.to));
    out.add("previous_state", state_name(what.from));
    out.add("diagnostic", diag_words(what.diag));
    out.add("reason", what.reason);
    out.end_object();
}

void add_session(json_writer &out, const session_driver &driver, const counters &counted)
{
    const session &bfd = driver.bfd();
    const session_config &config = bfd.config();
    out.begin_object();
    out.add("session", config.name);
    out.add("state", state_name(bfd.state().state));
    add_time(out, "since", driver.past().since);
    add_time(out, "now", std::chrono::system_clock::now());
    out.add("type", kind_name(config.kind));
    out.add("namespace", config.netns);
    out.add("local", config.local.text());
    out.add("peer", config.peer.text());
    out.add("interface", config.interface);
    if (!config.member.empty())
        out.add("member", config.member);
    if (const std::string problem = driver.problem(); !problem.empty())
        out.add("problem", problem);
    out.add("diagnostic", diag_words(bfd.state().diag));
    out.add("discriminator", bfd.discriminator());
    out.add("role", config.passive ? "passive" : "active");
    add_past(out, driver.past());
    add_timing(out, bfd);
    add_peer(out, bfd);
    add_auth(out, config.auth);
    if (counted.received)
        add_received(out, *counted.received);
    if (counted.sent)
        add_sent(out, *counted.sent);
    out.end_object();
}

void add_change(json_writer &out, const std::string &session, const change &from)
{
    out.begin_object();
    add_time(out, "time", from.when);
    out.add("session", session);
    out.add("state", state_name(from.to));
    out.add("previous_state", state_name(from.from));
    out.add("diagnostic", diag_words(from.diag));
    out.add("reason", from.reason);
    out.end_object();
}

} // namespace kelm_agent
