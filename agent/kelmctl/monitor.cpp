// SPDX-License-Identifier: GPL-2.0
//
// The object "monitor": events as they happen, one a line.
#include <ctime>

#include "kelmctl/arguments.h"
#include "kelmctl/context.h"
#include "kelmctl/objects.h"
#include "kelmctl/report_records.h"

namespace kelmctl
{

namespace
{

constexpr std::uint32_t group_bit(std::uint32_t group)
{
    return 1U << (group - 1);
}

record time_record()
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return record().stamp(
        "time", {static_cast<std::uint32_t>(now.tv_sec), static_cast<std::uint32_t>(now.tv_nsec)});
}

// What a report is about; 0 where it is about no session.
struct subject {
    std::uint32_t operator()(const kelm::packet_change &change) const
    {
        return change.discriminator;
    }
    std::uint32_t operator()(const kelm::session_failure &failure) const
    {
        return failure.discriminator;
    }
    std::uint32_t operator()(const kelm::unknown_message &) const { return 0; }
    std::uint32_t operator()(const kelm::overrun &) const { return 0; }
    std::uint32_t operator()(const auto &message) const { return message.header.discriminator; }
};

bool is_statistics(const kelm::report &report)
{
    return std::holds_alternative<kelm_msg_rx_stats>(report) ||
           std::holds_alternative<kelm_msg_tx_stats>(report) ||
           std::holds_alternative<kelm_msg_module_stats>(report);
}

struct filter {
    bool packets;
    bool failures;
    bool statistics;
    std::optional<std::uint32_t> discriminator;

    std::uint32_t groups() const
    {
        return (packets || statistics ? group_bit(KELM_NLG_NUM_CONTROL) : 0) |
               (failures ? group_bit(KELM_NLG_NUM_NOTIFICATION) : 0);
    }

    // The two kinds share a group.
    bool wants(const kelm::report &report) const
    {
        if (std::holds_alternative<kelm::overrun>(report))
            return true;
        if (discriminator && std::visit(subject(), report) != *discriminator)
            return false;
        if (is_statistics(report))
            return statistics;
        return packets || !std::holds_alternative<kelm::packet_change>(report);
    }
};

filter filter_argument(const arguments &args)
{
    filter chosen = {args.has("packets"), args.has("failures"), args.has("statistics"),
                     args.discriminator()};
    if (chosen.groups() == 0)
        chosen.packets = chosen.failures = chosen.statistics = true;
    return chosen;
}

void run_monitor(context &ctx, const arguments &args)
{
    const filter wanted = filter_argument(args);
    const auto count = args.number("count", 1, 0xffffffff);
    ctx.client().subscribe(wanted.groups());
    for (std::uint32_t shown = 0; !count || shown < *count;) {
        const auto event = ctx.client().next_event(std::chrono::hours(1));
        if (!event || !wanted.wants(*event))
            continue;
        record line = time_record();
        line.append(report_record(*event, ctx.links()));
        ctx.out.event(line);
        ++shown;
    }
}

constexpr parameter parameters[] = {
    {"packets", "", "packets with new contents, and packets for no session"},
    {"failures", "", "sessions whose detection time ran out"},
    {"statistics", "", "the periodic statistics (in the initial namespace)"},
    {"count", "N", "stop after this many events"},
};

constexpr command commands[] = {
    {"events", "[DISCRIMINATOR]",
     "show events as they happen, one a line; with -j, a JSON object a line\n"
     "All kinds, or those that are named; of all sessions, or of one.",
     parameters, run_monitor},
};

} // namespace

constinit const std::span<const command> monitor_commands = commands;

} // namespace kelmctl
