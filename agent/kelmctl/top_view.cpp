// SPDX-License-Identifier: GPL-2.0
#include "kelmctl/top_view.h"

#include <algorithm>
#include <optional>

#include "libkelm/frame.h"
#include "libkelm/names.h"

namespace kelmctl
{

namespace
{

// In the order in which they give way where the screen is narrow.
constexpr std::string_view expendable[] = {
    "auth failed", "errors", "latches", "rtt avg", "rtt max", "tx avg", "rx avg", "diag",
    "timer",       "dev",    "last",    "rx max",  "tx max",  "failed", "rtt",    "peer",
};

// One discriminator at one moment; what is not there is null.
struct entry {
    statistics_key key;
    const kelm_msg_rx_stats *rx = nullptr;
    const kelm_msg_tx_stats *tx = nullptr;
    const session_state *state = nullptr;
};

template<typename Map, typename Key>
auto find_in(const Map &map, const Key &key) -> const typename Map::mapped_type *
{
    const auto found = map.find(key);
    return found == map.end() ? nullptr : &found->second;
}

std::vector<entry> entries(const top_sample &sample)
{
    std::map<statistics_key, entry> found;
    for (const auto &[key, rx] : sample.stats.sessions)
        found[key].rx = &rx;
    for (const auto &[key, tx] : sample.stats.packets)
        found[key].tx = &tx;
    std::vector<entry> list;
    for (auto &[key, entry] : found) {
        entry.key = key;
        entry.state = find_in(sample.states, key.second);
        list.push_back(entry);
    }
    return list;
}

double seconds(std::uint64_t secs, std::uint64_t nsecs)
{
    return static_cast<double>(secs) + static_cast<double>(nsecs) / 1e9;
}

// How often a counter of a message went up per second; nothing if it was reset meanwhile.
template<typename Message>
std::optional<double> rate(const Message *now, const Message *before,
                           std::uint64_t Message::*counter)
{
    if (now == nullptr || before == nullptr || now->*counter < before->*counter)
        return std::nullopt;
    const double time = seconds(now->timestamp_secs, now->timestamp_nsecs) -
                        seconds(before->timestamp_secs, before->timestamp_nsecs);
    if (time <= 0)
        return std::nullopt;
    return static_cast<double>(now->*counter - before->*counter) / time;
}

std::uint64_t late(const kelm_msg_tx_stats &tx)
{
    return tx.sent_within_2p + tx.sent_within_3p + tx.sent_after_3p;
}

bool is_earlier(kelm_time a, kelm_time b)
{
    return a.sec < b.sec || (a.sec == b.sec && a.nsec < b.nsec);
}

// The timer ran out, and nothing has come since.
bool has_failed(const entry &entry)
{
    return entry.rx != nullptr && entry.rx->num_timeout > 0 && entry.state != nullptr &&
           !entry.state->timer_active.value_or(true) &&
           !is_earlier(entry.rx->last_state_change, entry.rx->last_rx_time);
}

void add_peer(record &to, const entry &entry, const top_sample &sample)
{
    if (entry.state == nullptr || !entry.state->last_frame)
        return;
    const kelm::packet_change &change = *entry.state->last_frame;
    const auto frame = kelm::decode_frame(change);
    if (!frame)
        return;
    const kelm::bfd_fields &bfd = frame->bfd.fields;
    to.text("peer", "peer", frame->source.text());
    if (const std::string *link = find_in(sample.links, change.ifindex))
        to.text("ifname", "dev", *link);
    to.text("state", "state",
            has_failed(entry) ? "failed" : kelm::name_of(kelm::state_names, bfd.state));
    to.text("diag", "diag", kelm::name_of(kelm::diagnostic_names, bfd.diag));
}

void add_rate(record &to, const char *key, const char *label, std::optional<double> value)
{
    if (value)
        to.rate(key, label, *value);
    else
        to.text("", label, "-");
}

// 0 means that there is no sample.
void add_duration(record &to, const char *key, const char *label, kelm_microsecs value)
{
    if (value != 0)
        to.duration(key, label, value);
}

void add_transmission(record &to, const kelm_msg_tx_stats &tx, const kelm_msg_tx_stats *before)
{
    add_rate(to, "tx_rate", "tx/s", rate(&tx, before, &kelm_msg_tx_stats::num_sent));
    to.number("num_late", "late", late(tx));
    add_duration(to, "avg_lateness", "tx avg", tx.avg_lateness);
    add_duration(to, "max_lateness", "tx max", tx.max_lateness);
    to.number("num_tx_errors", "errors", tx.num_tx_errors);
    to.number("num_latches", "latches", tx.num_latches);
}

void add_reception(record &to, const kelm_msg_rx_stats &rx, const kelm_msg_rx_stats *before)
{
    add_rate(to, "rx_rate", "rx/s", rate(&rx, before, &kelm_msg_rx_stats::num_received));
    add_duration(to, "avg_period", "rx avg", rx.avg_period);
    add_duration(to, "max_period", "rx max", rx.max_period);
    add_duration(to, "last_rtt", "rtt", rx.last_rtt);
    add_duration(to, "avg_rtt", "rtt avg", rx.avg_rtt);
    add_duration(to, "max_rtt", "rtt max", rx.max_rtt);
    to.number("num_timeout", "failed", rx.num_timeout);
    to.number("num_auth_fail", "auth failed", rx.num_auth_fail);
    to.age("last_rx_time", "last", rx.last_rx_time,
           {static_cast<std::uint32_t>(rx.timestamp_secs),
            static_cast<std::uint32_t>(rx.timestamp_nsecs)});
}

record make_record(const entry &entry, const top_sample &now, const top_sample *before)
{
    record made;
    made.number("discriminator", "session", entry.key.second);
    if (entry.key.first != 0)
        made.number("vrf", "vrf", entry.key.first);
    add_peer(made, entry, now);
    if (entry.state != nullptr && entry.state->timer_active)
        made.flag("timer_active", "timer", *entry.state->timer_active, "running", "stopped");
    if (entry.tx != nullptr)
        add_transmission(made, *entry.tx,
                         before == nullptr ? nullptr : find_in(before->stats.packets, entry.key));
    if (entry.rx != nullptr)
        add_reception(made, *entry.rx,
                      before == nullptr ? nullptr : find_in(before->stats.sessions, entry.key));
    return made;
}

// Those that need attention first.
std::vector<entry> sorted_entries(const top_sample &sample)
{
    std::vector<entry> list = entries(sample);
    std::stable_partition(list.begin(), list.end(), has_failed);
    return list;
}

std::string counted(std::size_t number, const char *what)
{
    return std::to_string(number) + ' ' + what + (number == 1 ? "" : "s");
}

std::string summary(const top_sample &now, std::size_t failed)
{
    std::uint64_t sent_late = 0;
    for (const auto &[key, tx] : now.stats.packets)
        sent_late += late(tx);
    return "kelm " + format_time(now.taken, false).substr(0, 8) + "  " +
           counted(now.stats.sessions.size(), "session") + ", " + std::to_string(failed) +
           " failed  " + counted(now.stats.packets.size(), "packet") + ", " +
           std::to_string(sent_late) + " sent late";
}

// What the module has not been able to do anything with, or to tell anybody.
std::string module_summary(const top_sample &now)
{
    std::uint64_t invalid = 0;
    std::uint64_t unknown = 0;
    std::uint64_t unheard = 0;
    for (const auto &[vrf, module] : now.stats.modules) {
        invalid += module.rfc_drops;
        unknown += module.num_invalid_sessions + module.num_passup_disc_0;
        unheard += module.netlink_packet_change_fail + module.netlink_failure_fail;
    }
    return "received: " + std::to_string(invalid) + " invalid, " + std::to_string(unknown) +
           " for no session  events undelivered: " + std::to_string(unheard);
}

void shorten(std::vector<top_line> &lines, std::size_t rows)
{
    if (lines.size() <= rows || rows == 0)
        return;
    const std::size_t hidden = lines.size() - (rows - 1);
    lines.resize(rows - 1);
    lines.push_back({"... and " + std::to_string(hidden) + " more"});
}

} // namespace

std::vector<record> top_records(const top_sample &now, const top_sample *before)
{
    std::vector<record> records;
    for (const auto &entry : sorted_entries(now))
        records.push_back(make_record(entry, now, before));
    return records;
}

std::vector<top_line> top_lines(const top_sample &now, const top_sample *before,
                                const top_form &form)
{
    const auto list = sorted_entries(now);
    const auto failed = static_cast<std::size_t>(std::ranges::count_if(list, has_failed));
    std::vector<top_line> lines = {{summary(now, failed)}, {module_summary(now)}, {""}};

    std::vector<record> records = top_records(now, before);
    if (form.timestamps)
        for (auto &record : records)
            record.tell_times();
    auto look = top_line::style::heading;
    std::size_t row = 0;
    for (auto &text : table_lines(records, form.columns, expendable)) {
        lines.push_back({std::move(text), look});
        look = row++ < failed ? top_line::style::alarm : top_line::style::plain;
    }
    shorten(lines, form.rows);
    for (auto &line : lines)
        line.text.resize(std::min(line.text.size(), form.columns));
    return lines;
}

} // namespace kelmctl
