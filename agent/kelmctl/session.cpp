// SPDX-License-Identifier: GPL-2.0
//
// The object "session": kelm's receive sessions.
#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>

#include "kelmctl/auth_arguments.h"
#include "kelmctl/objects.h"
#include "kelmctl/states.h"
#include "kelmctl/statistics.h"
#include "libkelm/error.h"

namespace kelmctl
{

namespace
{

constexpr parameter own_parameters[] = {
    {"interval", "TIME", "the peer's transmit interval, as negotiated: 300ms, 1.5s (required)"},
    {"multiplier", "N", "detection time in intervals, 1 to 255 (default 3)"},
    {"timer", "on|off", "run the detection timer (default on)"},
    {"type", "TYPE", "single-hop, echo, lag, multihop or sbfd (default single-hop)",
     &kelm::session_type_names},
    {"dev", "IFNAME", "accept packets that arrive on this interface only"},
    {"require-ttl", "255|254", "accept packets with this TTL or hop limit only"},
    {"latch", "LIST", "transmit packets to latch on failure: up to 8 discriminators, 5,6,7"},
    {"latch-diag", "DIAG",
     "their diagnostic once latched (default\n"
     "control-detection-time-expired)",
     &kelm::diagnostic_names},
    {"rtt", "", "measure the round trips of our own packets, looped back"},
};

constexpr parameter second_key_parameters[] = {
    {"key2-id", "N", "key ID of a second key that is also accepted (default 1)"},
    {"key2-file", "FILE", "file with the second key"},
};

constexpr auto set_parameters = [] {
    std::array<parameter, std::size(own_parameters) + std::size(auth_parameters) +
                              std::size(second_key_parameters)>
        all{};
    auto end = std::ranges::copy(own_parameters, all.begin()).out;
    end = std::ranges::copy(auth_parameters, end).out;
    std::ranges::copy(second_key_parameters, end);
    return all;
}();

record state_record(context &ctx, const session_state &state)
{
    record made;
    if (state.timer_active)
        made.flag("timer_active", "timer", *state.timer_active, "running", "stopped");
    if (state.last_frame)
        add_frame(made, *state.last_frame, ctx.links(), frame_cells::who_and_state);
    return made;
}

void run_show(context &ctx, const arguments &args)
{
    const std::uint32_t wanted = args.discriminator().value_or(0);
    const statistics stats = read_statistics(ctx, wanted);
    if (wanted != 0 && stats.sessions.empty())
        throw kelm::error(ENOENT, "no such receive session: " + std::to_string(wanted));
    auto states = read_states(ctx);
    std::vector<record> records;
    for (const auto &[key, message] : stats.sessions)
        records.push_back(
            rx_stats_record(message, key.first, state_record(ctx, states[key.second])));
    ctx.out.list(std::move(records), wanted != 0);
}

// The product is 32 bits wide in kelm.
void check_detection_time(std::uint8_t multiplier, kelm_microsecs interval)
{
    const std::uint64_t detection_time = std::uint64_t{multiplier} * interval;
    if (detection_time == 0 || detection_time > std::numeric_limits<std::uint32_t>::max())
        throw usage_error("multiplier times interval must be more than 0 and below 4294 seconds");
}

void fill_authentication(kelm_msg_rx_set_session &settings, const arguments &args)
{
    const kelm::auth_settings first = auth_argument(args);
    const auto second = second_key_argument(args, first.type);
    settings.auth.type = first.type;
    if (has_key(first.type))
        settings.auth_key[0] = kelm::key_slot(first);
    if (second)
        settings.auth_key[1] = kelm::key_slot(*second);
    if (args.has("require-ttl"))
        settings.auth.flags =
            args.number("require-ttl", 254, 255) == 255 ? KELM_AUTH_TTL_255 : KELM_AUTH_TTL_254;
}

void fill_latch(kelm_msg_rx_set_session &settings, const arguments &args)
{
    const auto list = args.has("latch") ? parse_discriminators(*args.text("latch"))
                                        : std::vector<std::uint32_t>{};
    if (list.size() > KELM_NUM_LATCH_TX_PACKETS)
        throw usage_error("latch: a session can latch 8 packets at most");
    std::ranges::copy(list, settings.latch_tx_packets);
    settings.latch_diagnostic = static_cast<std::uint8_t>(
        args.choice("latch-diag", kelm::diagnostic_names).value_or(BFD_DIAG_CTRL_TIMEOUT));
}

void run_set(context &ctx, const arguments &args)
{
    const std::uint32_t discriminator = args.required_discriminator();
    kelm_msg_rx_set_session settings = {};
    settings.header.discriminator = discriminator;
    settings.type = static_cast<std::uint8_t>(
        args.choice("type", kelm::session_type_names).value_or(KELM_RX_SESSION_BFD));
    settings.multiplier = static_cast<std::uint8_t>(args.number("multiplier", 1, 255).value_or(3));
    settings.period = args.required("interval", args.duration("interval"));
    check_detection_time(settings.multiplier, settings.period);
    if (args.on_off("timer").value_or(true))
        settings.flags |= KELM_RX_TIMER_ACTIVE;
    if (args.has("rtt"))
        settings.flags |= KELM_RX_MYDISC_RTT;
    fill_latch(settings, args);
    fill_authentication(settings, args);
    if (const auto dev = args.text("dev"))
        settings.auth.ifindex = ctx.interface_index(*dev);
    ctx.client().execute(kelm::set_session(settings, kelm::failure_message(discriminator)));
}

void run_delete(context &ctx, const arguments &args)
{
    ctx.client().execute(kelm::delete_session(args.required_discriminator()));
}

constexpr command commands[] = {
    {"show",
     "[DISCRIMINATOR]",
     "show the sessions with their statistics, or one of them in full\n"
     "\"from\", \"state\" and \"diag\" are what the peer said last; \"last\" is the age of the\n"
     "last packet that was accepted, \"interval\" the average time between packets.",
     {},
     run_show},
    {"set", "DISCRIMINATOR",
     "create or reconfigure a session and restart its timer\n"
     "It receives the packets that carry this Your Discriminator. Parameters not\n"
     "given have their defaults, not their previous values.",
     set_parameters, run_set},
    {"delete", "DISCRIMINATOR", "delete a session", {}, run_delete},
};

} // namespace

constinit const std::span<const command> session_commands = commands;

} // namespace kelmctl
