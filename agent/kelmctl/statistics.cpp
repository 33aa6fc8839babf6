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
     "The snapshot counters, which the periodic statistics restart, are kept.",
     {},
     run_clear},
    {"interval",
     "SECONDS|off",
     "set the interval at which kelm multicasts all statistics, or stop it\n"
     "There is one interval for all namespaces. 'kelmctl monitor' in the initial namespace shows "
     "them.",
     {},
     run_interval},
};

constexpr std::uint64_t kelm_msg_rx_stats::*rx_counters[] = {
    &kelm_msg_rx_stats::num_received,      &kelm_msg_rx_stats::num_auth_fail,
    &kelm_msg_rx_stats::num_passup,        &kelm_msg_rx_stats::num_auth_type_mismatch,
    &kelm_msg_rx_stats::packet_alloc_fail, &kelm_msg_rx_stats::pskb_expand_fail,
    &kelm_msg_rx_stats::num_timeout,
};

constexpr std::uint64_t kelm_msg_tx_stats::*tx_counters[] = {
    &kelm_msg_tx_stats::num_sent,          &kelm_msg_tx_stats::num_tx_errors,
    &kelm_msg_tx_stats::num_empty_packets, &kelm_msg_tx_stats::num_short_packets,
    &kelm_msg_tx_stats::num_latch_errors,  &kelm_msg_tx_stats::num_latches,
    &kelm_msg_tx_stats::sent_within_1p,    &kelm_msg_tx_stats::sent_within_2p,
    &kelm_msg_tx_stats::sent_within_3p,    &kelm_msg_tx_stats::sent_after_3p,
};

// A dump that starts over repeats records. The later copy is the newer one; but where the first
// was cleared as it was read, the later one has only what was counted since: counters add up, and
// the rest is the first one's.
template<typename Message>
void add_record(std::map<statistics_key, Message> &to, const statistics_key &key,
                const Message &message, bool is_cleared,
                std::span<std::uint64_t Message::*const> counters)
{
    const auto [position, is_first] = to.try_emplace(key, message);
    if (!is_first && !is_cleared)
        position->second = message;
    else if (!is_first)
        for (const auto counter : counters)
            position->second.*counter += message.*counter;
}

template<typename Entries, typename Make>
std::vector<record> make_records(const Entries &entries, Make make)
{
    std::vector<record> records;
    records.reserve(entries.size());
    for (const auto &[key, message] : entries)
        records.push_back(make(key, message));
    return records;
}

} // namespace

constinit const std::span<const command> statistics_commands = commands;

// A message does not say which vrf it belongs to, but the module's counters end each vrf's.
statistics read_statistics(context &ctx, std::uint32_t discriminator, std::uint32_t flags)
{
    const bool all_vrfs = ctx.opts().all_vrfs;
    const bool clears = (flags & KELM_STATS_CLEAR) != 0;
    if (discriminator != 0 && all_vrfs && clears)
        throw usage_error(
            "-A cannot be combined with clearing one discriminator: that would also clear "
            "the module's counters");
    if (discriminator == 0 || all_vrfs)
        flags |= KELM_STATS_MODULE;
    if (all_vrfs)
        flags |= KELM_STATS_ALL_VRFS;

    statistics stats;
    vrf_number vrf = all_vrfs ? 1 : 0;
    for (const auto &report : ctx.client().statistics(discriminator, flags)) {
        if (const auto *rx = std::get_if<kelm_msg_rx_stats>(&report))
            add_record<kelm_msg_rx_stats>(stats.sessions, {vrf, rx->header.discriminator}, *rx,
                                          clears, rx_counters);
        else if (const auto *tx = std::get_if<kelm_msg_tx_stats>(&report))
            add_record<kelm_msg_tx_stats>(stats.packets, {vrf, tx->header.discriminator}, *tx,
                                          clears, tx_counters);
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
