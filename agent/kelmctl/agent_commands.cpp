// SPDX-License-Identifier: GPL-2.0
//
// The object "agent": the sessions of a running kelm-agent.
#include <map>

#include "kelmctl/agent_request.h"
#include "kelmctl/arguments.h"
#include "kelmctl/context.h"
#include "kelmctl/objects.h"

namespace kelmctl
{

namespace
{

std::string socket_of(const arguments &args)
{
    return args.text("socket").value_or(default_agent_socket);
}

agent_json request_for(const arguments &args, const char *command)
{
    agent_json request = {{"command", command}};
    if (!args.operands().empty())
        request["sessions"] = args.operands();
    return request;
}

agent_json ask(const arguments &args, const char *command)
{
    return ask_agent(socket_of(args), request_for(args, command));
}

kelm_time time_in(const agent_json &from)
{
    return {from.value("sec", 0U), from.value("nsec", 0U)};
}

// Reads an answer into a record: what the answer lacks is left out.
class reader
{
  public:
    reader(record &into, const agent_json &from, std::string prefix = {})
        : into_(into), from_(from), prefix_(std::move(prefix))
    {
    }

    reader &text(const char *key, const char *label)
    {
        return add(key, [&](const auto &v) {
            if (v != "")
                into_.text(prefix_ + key, label, v);
        });
    }
    reader &number(const char *key, const char *label)
    {
        return add(key, [&](const auto &v) { into_.number(prefix_ + key, label, v); });
    }
    reader &duration(const char *key, const char *label)
    {
        return add(key, [&](const auto &v) { into_.duration(prefix_ + key, label, v); });
    }
    reader &flag(const char *key, const char *label)
    {
        return add(key, [&](const auto &v) { into_.flag(prefix_ + key, label, v); });
    }
    reader &age(const char *key, const char *label, kelm_time now)
    {
        return add(key, [&](const auto &v) { into_.age(prefix_ + key, label, time_in(v), now); });
    }

  private:
    template<typename Add>
    reader &add(const char *key, Add add)
    {
        if (from_.contains(key))
            add(from_[key]);
        return *this;
    }

    record &into_;
    const agent_json &from_;
    std::string prefix_;
};

const agent_json &part(const agent_json &of, const char *name)
{
    static const agent_json nothing = agent_json::object();
    return of.contains(name) ? of[name] : nothing;
}

record session_record(const agent_json &from)
{
    const kelm_time now = time_in(part(from, "now"));
    record made;
    reader top(made, from);
    reader past(made, part(from, "changes"), "changes.");
    reader timing(made, part(from, "timing"), "timing.");
    reader remote(made, part(from, "remote"), "remote.");
    reader auth(made, part(from, "auth"), "auth.");
    reader received(made, part(from, "received"), "received.");
    reader sent(made, part(from, "sent"), "sent.");
    reader rtt(made, part(from, "rtt"), "rtt.");

    top.text("session", "session").text("state", "state").age("since", "since", now);
    top.text("peer", "peer").text("problem", "problem");
    timing.duration("transmit_interval", "sends every").duration("detection_time", "detects in");
    received.age("last", "received", now);
    rtt.duration("last", "rtt");
    past.number("up_count", "ups").number("down_count", "downs");
    past.text("last_down_reason", "last down reason");
    made.full();
    past.age("last_down", "last down", now);
    past.text("last_down_diagnostic", "last down diagnostic");
    top.text("diagnostic", "diagnostic").text("type", "type").text("namespace", "namespace");
    top.text("local", "local").text("interface", "interface").text("member", "member");
    top.text("role", "role").number("discriminator", "discriminator");
    timing.duration("min_tx", "min tx").duration("min_rx", "min rx");
    timing.number("multiplier", "multiplier").duration("receive_interval", "receives every");
    timing.flag("polling", "polling");
    remote.text("state", "peer's state").text("diagnostic", "peer's diagnostic");
    remote.number("discriminator", "peer's discriminator");
    remote.duration("min_tx", "peer's min tx").duration("min_rx", "peer's min rx");
    remote.number("multiplier", "peer's multiplier").flag("demand", "peer in demand mode");
    auth.text("type", "authentication").number("sent_key", "sends key");
    auth.number("other_key", "also accepts key");
    received.number("packets", "packets received").duration("interval", "avg receive interval");
    received.duration("longest", "longest receive interval").number("timeouts", "timeouts");
    received.number("rejected", "packets rejected");
    sent.number("packets", "packets sent").duration("interval", "avg send interval");
    sent.duration("longest", "longest send interval").number("errors", "send errors");
    rtt.duration("min", "min rtt").duration("avg", "avg rtt").duration("max", "max rtt");
    return made;
}

record change_record(const agent_json &from)
{
    record made;
    made.stamp("time", time_in(part(from, "time")));
    reader(made, from)
        .text("session", "")
        .text("state", "")
        .text("previous_state", "was")
        .text("reason", "reason")
        .text("diagnostic", "diagnostic");
    return made;
}

// Which sessions are to be shown.
struct show_filter {
    explicit show_filter(const arguments &args)
        : state(args.choice("state", kelm::state_names)), peer(args.address("peer"))
    {
    }

    bool wants(const agent_json &session) const
    {
        return (!state || session.value("state", "") == kelm::name_of(kelm::state_names, *state)) &&
               (!peer || session.value("peer", "") == peer->text());
    }

    std::optional<std::uint32_t> state;
    std::optional<kelm::ip_address> peer;
};

// "3 sessions: 1 down, 2 up"
std::string count_line(const std::map<std::string, std::size_t> &by_state)
{
    std::size_t total = 0;
    std::string parts;
    for (const auto &[state, count] : by_state) {
        total += count;
        parts += (parts.empty() ? ": " : ", ") + std::to_string(count) + ' ' + state;
    }
    return std::to_string(total) + (total == 1 ? " session" : " sessions") + parts;
}

void run_show(context &ctx, const arguments &args)
{
    const show_filter wanted(args);
    const agent_json reply = ask(args, "show");
    std::vector<record> records;
    std::map<std::string, std::size_t> by_state;
    for (const auto &session : part(reply, "sessions"))
        if (wanted.wants(session)) {
            records.push_back(session_record(session));
            ++by_state[session.value("state", "")];
        }
    const bool is_table = args.operands().empty() && !ctx.opts().statistics;
    ctx.out.list(std::move(records), !is_table);
    if (is_table && !ctx.opts().json)
        ctx.out.text_at_once({count_line(by_state)});
}

record event_record(const agent_json &from)
{
    record made = change_record(from);
    reader(made, from).text("peer", "peer").text("interface", "on");
    made.full();
    reader(made, from)
        .text("event", "")
        .text("type", "type")
        .text("namespace", "namespace")
        .text("local", "local");
    return made;
}

void run_monitor(context &ctx, const arguments &args)
{
    const auto count = args.number("count", 1, 0xffffffff);
    std::uint32_t shown = 0;
    follow_agent(socket_of(args), request_for(args, "subscribe"), [&](const agent_json &event) {
        ctx.out.event(event_record(event));
        return ++shown != count;
    });
}

void run_reload(context &ctx, const arguments &args)
{
    ask(args, "reload");
    if (!ctx.opts().json)
        ctx.out.text_at_once({"configuration reloaded"});
}

void run_history(context &ctx, const arguments &args)
{
    const agent_json reply = ask(args, "history");
    std::vector<record> records;
    for (const auto &change : part(reply, "changes"))
        records.push_back(change_record(change).tell_times());
    ctx.out.lines(std::move(records));
}

void run_down(context &, const arguments &args)
{
    ask(args, "down");
}

void run_up(context &, const arguments &args)
{
    ask(args, "up");
}

constexpr parameter parameters[] = {
    {"socket", "PATH", "the agent's control socket (default /run/kelm-agent/control.sock)"},
};

constexpr parameter show_parameters[] = {
    {"state", "STATE", "only sessions in this state", &kelm::state_names},
    {"peer", "ADDRESS", "only sessions with this peer"},
    parameters[0],
};

constexpr parameter monitor_parameters[] = {
    {"count", "N", "stop after this many lines"},
    parameters[0],
};

constexpr command commands[] = {
    {"show", "[SESSION...]",
     "show kelm-agent's sessions: all in a table, or all details of those that are named\n"
     "State and its age, the reason for the last failure, intervals, and kelm's counters.",
     show_parameters, run_show},
    {"monitor", "[SESSION...]",
     "show the state of the sessions, and then every change of it as it happens, one a line\n"
     "With -j, a JSON object a line. Changes of sessions that are added later are shown, too, if "
     "none is named.",
     monitor_parameters, run_monitor},
    {"history", "[SESSION...]", "show the changes of state of the sessions, each with its reason",
     parameters, run_history},
    {"down", "SESSION...",
     "take sessions down administratively and tell their peers\n"
     "They stay down until 'up', even if the agent restarts.",
     parameters, run_down},
    {"up", "SESSION...", "bring sessions back that were taken down", parameters, run_up},
    {"reload", "",
     "have kelm-agent read its configuration again, and wait until it is in use\n"
     "A mistake in it is told, and changes nothing.",
     parameters, run_reload},
};

} // namespace

constinit const std::span<const command> agent_commands = commands;

} // namespace kelmctl
