// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/session_report.h"

#include "kelm-agent/reason.h"
#include "libkelm/names.h"

namespace kelm_agent
{

namespace
{

using json = nlohmann::ordered_json;

json time_json(wall_time time)
{
    using namespace std::chrono;
    const auto ns = duration_cast<nanoseconds>(time.time_since_epoch()).count();
    return {{"sec", ns / 1'000'000'000}, {"nsec", ns % 1'000'000'000}};
}

json time_json(kelm_time time)
{
    return {{"sec", time.sec}, {"nsec", time.nsec}};
}

std::string state_name(std::uint8_t state)
{
    return kelm::name_of(kelm::state_names, state);
}

json report_past(const history &past)
{
    json out = {{"up_count", past.up_count}, {"down_count", past.down_count}};
    if (past.down_count > 0) {
        out["last_down"] = time_json(past.last_down);
        out["last_down_diagnostic"] = diag_words(past.last_down_diag);
        out["last_down_reason"] = past.last_down_reason;
    }
    return out;
}

json report_peer(const session &bfd)
{
    if (!bfd.has_heard_peer())
        return {{"state", "not heard"}};
    const peer_timing &peer = bfd.timing().peer();
    return {{"state", state_name(bfd.remote().state)},
            {"diagnostic", diag_words(bfd.remote().diag)},
            {"discriminator", bfd.remote_discriminator()},
            {"multiplier", peer.detect_multiplier},
            {"min_tx", peer.desired_min_tx},
            {"min_rx", peer.required_min_rx},
            {"demand", bfd.remote_demand()}};
}

json report_timing(const session &bfd)
{
    const negotiation &timing = bfd.timing();
    json out = {{"min_tx", bfd.config().timing.desired_min_tx},
                {"min_rx", bfd.config().timing.required_min_rx},
                {"multiplier", bfd.config().multiplier},
                {"transmit_interval", timing.transmit_interval()}};
    if (bfd.has_heard_peer()) {
        out["receive_interval"] = timing.receive_interval();
        out["detection_time"] = timing.detection_time();
    }
    out["polling"] = bfd.polling();
    return out;
}

json report_auth(const authentication &auth)
{
    json out = {{"type", kelm::name_of(kelm::auth_type_names, auth.type)}};
    if (!auth.keys.empty())
        out["sent_key"] = auth.keys.at(auth.sending).id;
    if (auth.keys.size() > 1)
        out["other_key"] = auth.keys.at(1 - auth.sending).id;
    return out;
}

void add_counters(json &out, const counters &from)
{
    if (from.received) {
        const auto &received = *from.received;
        out["received"] = {
            {"packets", received.num_received}, {"last", time_json(received.last_rx_time)},
            {"interval", received.avg_period},  {"longest", received.max_period},
            {"timeouts", received.num_timeout}, {"rejected", received.num_auth_fail},
        };
        if (received.max_rtt != 0)
            out["rtt"] = {{"last", received.last_rtt},
                          {"min", received.min_rtt},
                          {"avg", received.avg_rtt},
                          {"max", received.max_rtt}};
    }
    if (from.sent)
        out["sent"] = {{"packets", from.sent->num_sent},
                       {"interval", from.sent->avg_lateness},
                       {"longest", from.sent->max_lateness},
                       {"errors", from.sent->num_tx_errors}};
}

} // namespace

json report_session(const session_driver &driver, const counters &counted)
{
    const session &bfd = driver.bfd();
    const session_config &config = bfd.config();
    json out = {{"session", config.name},
                {"state", state_name(bfd.state().state)},
                {"since", time_json(driver.past().since)},
                {"now", time_json(std::chrono::system_clock::now())},
                {"type", kind_name(config.kind)},
                {"namespace", config.netns},
                {"local", config.local.text()},
                {"peer", config.peer.text()},
                {"interface", config.interface}};
    if (!config.member.empty())
        out["member"] = config.member;
    if (std::string problem = driver.problem(); !problem.empty())
        out["problem"] = std::move(problem);
    out["diagnostic"] = diag_words(bfd.state().diag);
    out["discriminator"] = bfd.discriminator();
    out["role"] = config.passive ? "passive" : "active";
    out["changes"] = report_past(driver.past());
    out["timing"] = report_timing(bfd);
    out["remote"] = report_peer(bfd);
    out["auth"] = report_auth(config.auth);
    add_counters(out, counted);
    return out;
}

json report_change(const std::string &session, const change &from)
{
    return {{"time", time_json(from.when)},        {"session", session},
            {"state", state_name(from.to)},        {"previous_state", state_name(from.from)},
            {"diagnostic", diag_words(from.diag)}, {"reason", from.reason}};
}

} // namespace kelm_agent
