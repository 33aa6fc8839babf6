// SPDX-License-Identifier: GPL-2.0
//
// The object "packet": kelm's transmit packets.
#include <algorithm>
#include <array>
#include <cerrno>
#include <netinet/in.h>

#include "kelmctl/auth_arguments.h"
#include "kelmctl/objects.h"
#include "kelmctl/statistics.h"
#include "libkelm/error.h"
#include "libkelm/session_kind.h"

namespace kelmctl
{

namespace
{

constexpr parameter own_parameters[] = {
    {"local", "ADDRESS", "source address (required)"},
    {"peer", "ADDRESS", "destination address (required)"},
    {"interval", "TIME", "transmit interval, before jitter: 300ms, 1.5s (required)"},
    {"dev", "IFNAME", "send on this interface"},
    {"type", "TYPE",
     "single-hop, echo, lag, multihop or sbfd: sets the UDP ports (default\n"
     "single-hop)",
     &kelm::session_type_names},
    {"port", "N", "UDP destination port (default that of the type)"},
    {"source-port", "N", "UDP source port (default that of the type)"},
    {"ttl", "N", "TTL or hop limit (default 255)"},
    {"dst-mac", "MAC",
     "send an Ethernet frame to this address instead of an IP datagram;\n"
     "01:00:5e:90:00:01 for the members of a LAG"},
    {"src-mac", "MAC", "source of the Ethernet frame (default the interface's)"},
    {"jitter", "RULE",
     "none, 75 or 75-90: the interval is shortened at random to 75-100% or\n"
     "75-90% of itself (default 75, with multiplier 1 75-90)",
     &kelm::jitter_names},
    {"state", "STATE", "admin-down, down, init or up (default down)", &kelm::state_names},
    {"diag", "DIAG", "diagnostic in RFC 5880's words: no-diagnostic (default), path-down, ...",
     &kelm::diagnostic_names},
    {"multiplier", "N", "detect multiplier, 1 to 255 (default 3)"},
    {"my-discriminator", "N", "default the packet's discriminator"},
    {"your-discriminator", "N", "the peer's (default 0: not known)"},
    {"min-tx", "TIME", "Desired Min TX Interval (default the interval)"},
    {"min-rx", "TIME", "Required Min RX Interval (default the interval)"},
    {"min-echo-rx", "TIME", "Required Min Echo RX Interval (default 0)"},
    {"poll", "", "set the Poll bit"},
    {"final", "", "set the Final bit; sent only with 'oob'"},
    {"demand", "", "set the Demand bit"},
    {"cpi", "on|off", "the Control Plane Independent bit (default on)"},
    {"oob", "", "also send it once immediately, out of band"},
    {"rtt", "", "stamp My Discriminator with the time, to measure round trips"},
    {"latch-state", "STATE", "state once latched (default down)", &kelm::state_names},
    {"latch-interval", "TIME", "transmit interval once latched (default 1s)"},
};

constexpr auto set_parameters = [] {
    std::array<parameter, std::size(own_parameters) + std::size(auth_parameters)> all{};
    const auto end = std::ranges::copy(own_parameters, all.begin()).out;
    std::ranges::copy(auth_parameters, end);
    return all;
}();

constexpr kelm_microsecs default_latch_interval = 1'000'000;

bool is_link_local(const kelm::ip_address &address)
{
    return address.family == AF_INET6 && address.octets[0] == 0xfe &&
           (address.octets[1] & 0xc0) == 0x80;
}

kelm::bfd_fields bfd_arguments(const arguments &args, std::uint32_t discriminator,
                               kelm_microsecs interval)
{
    constexpr std::uint32_t any = 0xffffffff;
    kelm::bfd_fields bfd;
    bfd.state =
        static_cast<std::uint8_t>(args.choice("state", kelm::state_names).value_or(BFD_STATE_DOWN));
    bfd.diag = static_cast<std::uint8_t>(
        args.choice("diag", kelm::diagnostic_names).value_or(BFD_DIAG_NONE));
    bfd.poll = args.has("poll");
    bfd.final = args.has("final");
    bfd.demand_mode = args.has("demand");
    bfd.control_plane_independent = args.on_off("cpi").value_or(true);
    bfd.detect_multiplier =
        static_cast<std::uint8_t>(args.number("multiplier", 1, 255).value_or(3));
    bfd.my_discriminator = args.number("my-discriminator", 1, any).value_or(discriminator);
    bfd.your_discriminator = args.number("your-discriminator", 0, any).value_or(0);
    bfd.min_tx_interval = args.duration("min-tx").value_or(interval);
    bfd.min_rx_interval = args.duration("min-rx").value_or(interval);
    bfd.min_echo_rx_interval = args.duration("min-echo-rx").value_or(0);
    return bfd;
}

std::optional<kelm::ethernet_settings> ethernet_arguments(context &ctx, const arguments &args)
{
    const auto destination = args.mac("dst-mac");
    auto source = args.mac("src-mac");
    if (!destination && source)
        throw usage_error("'src-mac' requires 'dst-mac'");
    if (!destination)
        return std::nullopt;
    const std::string dev = args.required("dev", args.text("dev"));
    if (!source)
        source = ctx.links().mac(dev);
    if (!source)
        throw usage_error(dev + " has no Ethernet address: give 'src-mac'");
    return kelm::ethernet_settings{*destination, *source};
}

kelm::packet_settings packet_arguments(context &ctx, const arguments &args,
                                       std::uint32_t discriminator, kelm_microsecs interval)
{
    const auto kind = static_cast<kelm::session_kind>(
        args.choice("type", kelm::session_type_names).value_or(KELM_RX_SESSION_BFD));

    kelm::packet_settings settings;
    settings.source = args.required("local", args.address("local"));
    settings.destination = args.required("peer", args.address("peer"));
    settings.destination_port = static_cast<std::uint16_t>(
        args.number("port", 1, 65535).value_or(kelm::destination_port(kind)));
    settings.source_port = static_cast<std::uint16_t>(
        args.number("source-port", 1, 65535).value_or(kelm::source_port(kind, discriminator)));
    settings.ttl = static_cast<std::uint8_t>(args.number("ttl", 1, 255).value_or(255));
    settings.ethernet = ethernet_arguments(ctx, args);
    settings.bfd = bfd_arguments(args, discriminator, interval);
    settings.auth = auth_argument(args);
    if (is_link_local(settings.destination) && !args.has("dev"))
        throw usage_error("a link-local peer requires 'dev'");
    return settings;
}

kelm_msg_tx_set_packet schedule_arguments(context &ctx, const arguments &args,
                                          std::uint32_t discriminator, kelm_microsecs interval,
                                          std::uint8_t multiplier)
{
    kelm_msg_tx_set_packet settings = {};
    settings.header.discriminator = discriminator;
    settings.period = interval;
    settings.jitter_type = static_cast<std::uint16_t>(
        args.choice("jitter", kelm::jitter_names)
            .value_or(multiplier == 1 ? BFD_TX_JITTER_75_90 : BFD_TX_JITTER_75));
    settings.latch_period = args.duration("latch-interval").value_or(default_latch_interval);
    settings.latch_state = static_cast<std::uint8_t>(
        args.choice("latch-state", kelm::state_names).value_or(BFD_STATE_DOWN));
    if (args.has("oob"))
        settings.flags |= KELM_TX_SEND_OOB;
    if (args.has("rtt"))
        settings.flags |= KELM_TX_MYDISC_RTT;
    if (const auto dev = args.text("dev"))
        settings.ifindex = ctx.interface_index(*dev);
    return settings;
}

void run_set(context &ctx, const arguments &args)
{
    const std::uint32_t discriminator = args.required_discriminator();
    const kelm_microsecs interval = args.required("interval", args.duration("interval"));
    if (interval == 0 || args.duration("latch-interval") == 0U)
        throw usage_error("an interval must be longer than 0");

    const auto wire = packet_arguments(ctx, args, discriminator, interval);
    auto settings =
        schedule_arguments(ctx, args, discriminator, interval, wire.bfd.detect_multiplier);
    const kelm::built_packet built = kelm::build_packet(wire);
    built.apply_to(settings, wire.auth.type);
    ctx.client().execute(kelm::set_packet(settings, built.packet));
}

void run_show(context &ctx, const arguments &args)
{
    const std::uint32_t wanted = args.discriminator().value_or(0);
    const statistics stats = read_statistics(ctx, wanted);
    if (wanted != 0 && stats.packets.empty())
        throw kelm::error(ENOENT, "no such transmit packet: " + std::to_string(wanted));
    std::vector<record> records;
    for (const auto &[key, message] : stats.packets)
        records.push_back(tx_stats_record(message, key.first));
    ctx.out.list(std::move(records), wanted != 0);
}

void run_delete(context &ctx, const arguments &args)
{
    ctx.client().execute(kelm::delete_packet(args.required_discriminator()));
}

constexpr command commands[] = {
    {"show",
     "[DISCRIMINATOR]",
     "show the packets with their statistics, or one of them in full\n"
     "\"last\" is the age of the last transmission, \"interval\" the average time between\n"
     "transmissions.",
     {},
     run_show},
    {"set", "DISCRIMINATOR",
     "create a packet that is sent periodically, or replace it\n"
     "Parameters not given have their defaults, not their previous values. Nothing is sent until "
     "the\n"
     "transmit path is ready: see 'kelmctl tx-path help'.",
     set_parameters, run_set},
    {"delete", "DISCRIMINATOR", "delete a packet", {}, run_delete},
};

} // namespace

constinit const std::span<const command> packet_commands = commands;

} // namespace kelmctl
