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

constexpr uint32_t group_bit(uint32_t group)
{
    return 1U << (group - 1);
}

// Local time for people; the full time in JSON.
record time_record()
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local = {};
    localtime_r(&now.tv_sec, &local);
    char text[32];
    const size_t length = std::strftime(text, sizeof text, "%H:%M:%S", &local);
    std::snprintf(text + length, sizeof text - length, ".%06ld", now.tv_nsec / 1000);

    record made;
    made.stamp("time", {static_cast<uint32_t>(now.tv_sec), static_cast<uint32_t>(now.tv_nsec)},
               text);
    return made;
}

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

    uint32_t groups() const
    {
        return (packets || statistics ? group_bit(KELM_NLG_NUM_CONTROL) : 0) |
               (failures ? group_bit(KELM_NLG_NUM_NOTIFICATION) : 0);
    }

    // The two kinds share a group.
    bool wants(const kelm::report &report) const
    {
        if (is_statistics(report))
            return statistics;
        return packets || !std::holds_alternative<kelm::packet_change>(report);
    }
};

filter filter_argument(const arguments &args)
{
    const filter chosen = {args.has("packets"), args.has("failures"), args.has("statistics")};
    return chosen.groups() == 0 ? filter{true, true, true} : chosen;
}

void run_monitor(context &ctx, const arguments &args)
{
    const filter wanted = filter_argument(args);
    const auto count = args.number("count", 1, 0xffffffff);
    ctx.client().subscribe(wanted.groups());
    for (uint32_t shown = 0; !count || shown < *count;) {
        const auto event = ctx.client().next_event(std::chrono::hours(1));
        if (!event || !wanted.wants(*event))
            continue;
        record line = time_record();
        line.append(report_record(*event, ctx.links()));
        ctx.out.event(line);
        shown++;
    }
}

constexpr parameter parameters[] = {
    {"packets", "", "packets from peers that say something new"},
    {"failures", "", "sessions whose detection time ran out"},
    {"statistics", "", "the periodic statistics (in the initial namespace)"},
    {"count", "N", "end after so many events"},
};

constexpr command commands[] = {
    {"events", "",
     "show events as they happen, one a line; with -j, a JSON object a line\n"
     "All kinds, or those that are named.",
     parameters, run_monitor},
};

} // namespace

constinit const std::span<const command> monitor_commands = commands;

} // namespace kelmctl
