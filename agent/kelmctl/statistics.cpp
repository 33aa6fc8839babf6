// SPDX-License-Identifier: GPL-2.0
//
// The object "statistics", and what the listings of sessions and packets share with it.
#include "kelmctl/statistics.h"

#include "kelmctl/arguments.h"
#include "kelmctl/objects.h"

namespace kelmctl
{

namespace
{

constexpr std::uint32_t max_interval = 65535;

void run_show(context &ctx, const arguments &args)
{
    const std::uint32_t clear = args.has("clear") ? KELM_STATS_CLEAR : 0;
    const statistics stats = read_statistics(ctx, args.discriminator().value_or(0), clear);
    for (auto list : {session_records(stats), packet_records(stats), module_records(stats)})
        ctx.out.list(std::move(list));
}

// Nothing is read, so that nothing can be lost on the way.
void run_clear(context &ctx, const arguments &args)
{
    const std::uint32_t discriminator = args.discriminator().value_or(0);
    std::uint32_t flags = KELM_STATS_CLEAR | KELM_STATS_NO_REPORT;
    if (discriminator == 0)
        flags |= KELM_STATS_MODULE;
    if (ctx.opts().all_vrfs)
        flags |= KELM_STATS_ALL_VRFS;
    ctx.client().dump(kelm::get_stats(discriminator, flags));
}

void run_interval(context &ctx, const arguments &args)
{
    const std::string text = *args.operand(0);
    const std::uint32_t seconds =
        text == "off" ? 0 : parse_number("interval (seconds, or off)", text, 1, max_interval);
    ctx.client().execute(kelm::set_stats_interval(static_cast<std::uint16_t>(seconds)));
}

constexpr parameter show_parameters[] = {
    {"clear", "", "clear the counters as they are read"},
};

constexpr command commands[] = {
    {"show", "[DISCRIMINATOR]",
     "show all counters, or those of one discriminator\n"
     "A vrf is a network namespace as kelm knows it; with -A, 1 is the newest.",
     show_parameters, run_show},
    {"clear",
     "[DISCRIMINATOR]",
     "clear all counters, or those of one discriminator\n"
     "The snapshots, which the periodic statistics restart, stay.",
     {},
     run_clear},
    {"interval",
     "SECONDS|off",
     "have all statistics multicast every so many seconds, or no more\n"
     "One interval holds for all namespaces. 'kelmctl monitor' in the initial namespace shows "
     "them.",
     {},
     run_interval},
};

template<typename Entries, typename Make>
std::vector<record> make_records(const Entries &entries, Make make)
{
    std::vector<record> records;
    for (const auto &[key, message] : entries)
        records.push_back(make(key, message));
    return records;
}

} // namespace

constinit const std::span<const command> statistics_commands = commands;

// A message does not say which vrf it belongs to, but the module's counters end each vrf's. A
// dump that began over repeats records: the later ones count.
statistics read_statistics(context &ctx, std::uint32_t discriminator, std::uint32_t flags)
{
    const bool all_vrfs = ctx.opts().all_vrfs;
    if (discriminator != 0 && all_vrfs && (flags & KELM_STATS_CLEAR) != 0)
        throw usage_error("-A does not go with clearing a single discriminator: it would clear "
                          "the module's counters too");
    if (discriminator == 0 || all_vrfs)
        flags |= KELM_STATS_MODULE;
    if (all_vrfs)
        flags |= KELM_STATS_ALL_VRFS;

    statistics stats;
    vrf_number vrf = all_vrfs ? 1 : 0;
    for (const auto &report : ctx.client().statistics(discriminator, flags)) {
        if (const auto *rx = std::get_if<kelm_msg_rx_stats>(&report))
            stats.sessions.insert_or_assign({vrf, rx->header.discriminator}, *rx);
        else if (const auto *tx = std::get_if<kelm_msg_tx_stats>(&report))
            stats.packets.insert_or_assign({vrf, tx->header.discriminator}, *tx);
        else if (const auto *module = std::get_if<kelm_msg_module_stats>(&report))
            stats.modules.insert_or_assign(all_vrfs ? vrf++ : vrf, *module);
    }
    return stats;
}

std::vector<record> session_records(const statistics &stats)
{
    return make_records(stats.sessions, [](const auto &key, const auto &message) {
        return rx_stats_record(message, key.first).json("message", "rx_stats");
    });
}

std::vector<record> packet_records(const statistics &stats)
{
    return make_records(stats.packets, [](const auto &key, const auto &message) {
        return tx_stats_record(message, key.first).json("message", "tx_stats");
    });
}

std::vector<record> module_records(const statistics &stats)
{
    return make_records(stats.modules, [](vrf_number vrf, const auto &message) {
        return module_stats_record(message, vrf).json("message", "module_stats");
    });
}

} // namespace kelmctl
