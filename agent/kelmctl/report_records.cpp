// SPDX-License-Identifier: GPL-2.0
#include "kelmctl/report_records.h"

#include "libkelm/frame.h"
#include "libkelm/names.h"

namespace kelmctl
{

namespace
{

template<typename Message>
kelm_time timestamp(const Message &message)
{
    return {static_cast<std::uint32_t>(message.timestamp_secs),
            static_cast<std::uint32_t>(message.timestamp_nsecs)};
}

template<typename Message>
void add_timestamp(record &to, const Message &message)
{
    to.json("timestamp_secs", message.timestamp_secs);
    to.json("timestamp_nsecs", message.timestamp_nsecs);
    to.json("unsolicited", message.unsolicited != 0);
}

void add_vrf(record &to, vrf_number vrf)
{
    if (vrf != 0)
        to.number("vrf", "vrf", vrf);
}

std::string flag_letters(const kelm::bfd_packet &bfd)
{
    std::string letters;
    letters += bfd.fields.poll ? "P" : "";
    letters += bfd.fields.final ? "F" : "";
    letters += bfd.fields.control_plane_independent ? "C" : "";
    letters += bfd.auth_present ? "A" : "";
    letters += bfd.fields.demand_mode ? "D" : "";
    letters += bfd.multipoint ? "M" : "";
    return letters.empty() ? "-" : letters;
}

void add_bfd_flags(record &to, const kelm::bfd_packet &bfd)
{
    to.json("packet.poll", bfd.fields.poll);
    to.json("packet.final", bfd.fields.final);
    to.json("packet.control_plane_independent", bfd.fields.control_plane_independent);
    to.json("packet.auth_present", bfd.auth_present);
    to.json("packet.demand_mode", bfd.fields.demand_mode);
    to.json("packet.multipoint", bfd.multipoint);
    to.text("", "flags", flag_letters(bfd));
}

void add_auth(record &to, const kelm::bfd_auth_info &auth)
{
    to.text("packet.auth_type", "auth", kelm::name_of(kelm::auth_type_names, auth.type));
    to.number("packet.auth_key_id", "key id", auth.key_id);
    if (auth.sequence)
        to.number("packet.auth_seq_num", "sequence", *auth.sequence);
}

void add_bfd_numbers(record &to, const kelm::bfd_packet &bfd)
{
    to.number("packet.my_discriminator", "my", bfd.fields.my_discriminator)
        .number("packet.your_discriminator", "your", bfd.fields.your_discriminator)
        .number("packet.detect_multiplier", "multiplier", bfd.fields.detect_multiplier)
        .duration("packet.min_tx_interval", "min tx", bfd.fields.min_tx_interval)
        .duration("packet.min_rx_interval", "min rx", bfd.fields.min_rx_interval)
        .duration("packet.min_echo_rx_interval", "min echo rx", bfd.fields.min_echo_rx_interval);
    if (bfd.auth)
        add_auth(to, *bfd.auth);
}

} // namespace

record rx_stats_record(const kelm_msg_rx_stats &stats, vrf_number vrf, const record &state)
{
    const kelm_time now = timestamp(stats);
    record made;
    made.number("discriminator", "session", stats.header.discriminator);
    add_vrf(made, vrf);
    made.append(state);
    made.number("num_received", "received", stats.num_received)
        .age("last_rx_time", "last", stats.last_rx_time, now)
        .duration("avg_period", "interval", stats.avg_period)
        .duration("max_period", "longest", stats.max_period)
        .number("num_timeout", "timeouts", stats.num_timeout)
        .number("num_auth_fail", "auth failed", stats.num_auth_fail)
        .full()
        .duration("min_period", "shortest", stats.min_period)
        .number("num_auth_type_mismatch", "wrong auth type", stats.num_auth_type_mismatch)
        .number("num_passup", "passed up", stats.num_passup)
        .number("packet_alloc_fail", "no memory to keep", stats.packet_alloc_fail)
        .number("pskb_expand_fail", "no memory to pass up", stats.pskb_expand_fail)
        .age("last_state_change", "last set or failed", stats.last_state_change, now)
        .duration("min_rtt", "min round trip", stats.min_rtt)
        .duration("avg_rtt", "avg round trip", stats.avg_rtt)
        .duration("max_rtt", "max round trip", stats.max_rtt)
        .duration("last_rtt", "last round trip", stats.last_rtt)
        .number("snapshot_num_received", "snapshot received", stats.snapshot_num_received)
        .duration("snapshot_min_period", "snapshot shortest", stats.snapshot_min_period)
        .duration("snapshot_avg_period", "snapshot interval", stats.snapshot_avg_period)
        .duration("snapshot_max_period", "snapshot longest", stats.snapshot_max_period)
        .duration("snapshot_min_rtt", "snapshot min round trip", stats.snapshot_min_rtt)
        .duration("snapshot_avg_rtt", "snapshot avg round trip", stats.snapshot_avg_rtt)
        .duration("snapshot_max_rtt", "snapshot max round trip", stats.snapshot_max_rtt);
    add_timestamp(made, stats);
    return made.brief();
}

record tx_stats_record(const kelm_msg_tx_stats &stats, vrf_number vrf)
{
    record made;
    made.number("discriminator", "packet", stats.header.discriminator);
    add_vrf(made, vrf);
    made.number("num_sent", "sent", stats.num_sent)
        .age("last_tx_time", "last", stats.last_tx_time, timestamp(stats))
        .duration("avg_lateness", "interval", stats.avg_lateness)
        .duration("max_lateness", "longest", stats.max_lateness)
        .number("num_tx_errors", "errors", stats.num_tx_errors)
        .number("num_latches", "latches", stats.num_latches)
        .full()
        .duration("min_lateness", "shortest", stats.min_lateness)
        .number("sent_within_1p", "within 1 period", stats.sent_within_1p)
        .number("sent_within_2p", "within 2 periods", stats.sent_within_2p)
        .number("sent_within_3p", "within 3 periods", stats.sent_within_3p)
        .number("sent_after_3p", "after 3 periods", stats.sent_after_3p)
        .number("num_latch_errors", "latch errors", stats.num_latch_errors)
        .number("num_empty_packets", "empty", stats.num_empty_packets)
        .number("num_short_packets", "too short", stats.num_short_packets)
        .number("snapshot_num_sent", "snapshot sent", stats.snapshot_num_sent)
        .duration("snapshot_min_lateness", "snapshot shortest", stats.snapshot_min_lateness)
        .duration("snapshot_avg_lateness", "snapshot interval", stats.snapshot_avg_lateness)
        .duration("snapshot_max_lateness", "snapshot longest", stats.snapshot_max_lateness)
        .number("snapshot_sent_within_1p", "snapshot within 1 period",
                stats.snapshot_sent_within_1p)
        .number("snapshot_sent_within_2p", "snapshot within 2 periods",
                stats.snapshot_sent_within_2p)
        .number("snapshot_sent_within_3p", "snapshot within 3 periods",
                stats.snapshot_sent_within_3p)
        .number("snapshot_sent_after_3p", "snapshot after 3 periods", stats.snapshot_sent_after_3p);
    add_timestamp(made, stats);
    return made.brief();
}

record module_stats_record(const kelm_msg_module_stats &stats, vrf_number vrf)
{
    record made;
    if (stats.unsolicited != 0)
        made.text("", "module", "statistics");
    else if (vrf == 0)
        made.text("", "vrf", "this");
    add_vrf(made, vrf);
    made.json("strict", stats.strict != 0);
    if (stats.strict != 0)
        made.text("", "mode", "strict");
    made.number("rfc_drops", "invalid", stats.rfc_drops)
        .number("num_invalid_sessions", "no session", stats.num_invalid_sessions)
        .number("num_passup_disc_0", "no discriminator", stats.num_passup_disc_0)
        .number("netlink_packet_change_fail", "changes undelivered",
                stats.netlink_packet_change_fail)
        .number("netlink_failure_fail", "failures undelivered", stats.netlink_failure_fail)
        .full()
        .number("num_not_passed_up", "not passed up", stats.num_not_passed_up)
        .number("rx_packet_missing", "packets missing", stats.rx_packet_missing)
        .number("pskb_expand_fail", "no memory to pass up", stats.pskb_expand_fail)
        .number("session_stats_no_skb_fail", "periodic: no memory", stats.session_stats_no_skb_fail)
        .number("session_stats_send_stats_fail", "periodic: errors",
                stats.session_stats_send_stats_fail)
        .number("session_stats_broadcast_fail", "periodic: unheard",
                stats.session_stats_broadcast_fail)
        .number("seq_num", "periodic: number", stats.seq_num);
    add_timestamp(made, stats);
    return made.brief();
}

void add_frame(record &to, const kelm::packet_change &change, const kelm::interfaces &links,
               frame_cells wanted)
{
    const auto frame = kelm::decode_frame(change);
    to.json("packet.ifindex", std::uint64_t{change.ifindex});
    to.json("packet.member_ifindex", std::uint64_t{change.member_ifindex});
    to.json("packet.length", std::uint64_t{change.frame.size()});
    to.text("packet.ifname", "dev", links.name(change.ifindex));
    if (change.member_ifindex != 0)
        to.text("packet.member_ifname", "member", links.name(change.member_ifindex));
    if (!frame)
        return;
    const kelm::bfd_packet &bfd = frame->bfd;
    to.text("packet.source", "from", frame->source.text());
    if (wanted == frame_cells::who_and_state)
        to.full();
    to.text("packet.destination", "to", frame->destination.text()).brief();
    to.text("packet.state", "state", kelm::name_of(kelm::state_names, bfd.fields.state));
    to.text("packet.diag", "diag", kelm::name_of(kelm::diagnostic_names, bfd.fields.diag));
    if (wanted == frame_cells::who_and_state)
        to.full();
    to.number("packet.ttl", "ttl", frame->ttl);
    to.json("packet.source_port", std::uint64_t{frame->source_port});
    to.number("packet.destination_port", "port", frame->destination_port);
    to.json("packet.version", std::uint64_t{bfd.version});
    add_bfd_flags(to, bfd);
    add_bfd_numbers(to, bfd);
    to.brief();
}

namespace
{

struct report_visitor {
    const kelm::interfaces &links;

    record operator()(const kelm_msg_rx_stats &stats) const
    {
        return rx_stats_record(stats).json("message", "rx_stats");
    }
    record operator()(const kelm_msg_tx_stats &stats) const
    {
        return tx_stats_record(stats).json("message", "tx_stats");
    }
    record operator()(const kelm_msg_module_stats &stats) const
    {
        return module_stats_record(stats).json("message", "module_stats");
    }
    record operator()(const kelm::packet_change &change) const
    {
        record made;
        made.number("discriminator", "received for session", change.discriminator)
            .json("message", "rx_packet_change");
        add_frame(made, change, links, frame_cells::everything);
        return made;
    }
    record operator()(const kelm_msg_rx_sync &sync) const
    {
        return record()
            .number("discriminator", "session", sync.header.discriminator)
            .json("message", "rx_sync")
            .flag("timer_active", "timer", sync.timer_active != 0, "running", "stopped");
    }
    record operator()(const kelm_msg_tx_sync &sync) const
    {
        return record()
            .number("discriminator", "packet", sync.header.discriminator)
            .json("message", "tx_sync");
    }
    record operator()(const kelm::session_failure &failure) const
    {
        return record()
            .number("discriminator", "failure of session", failure.discriminator)
            .json("message", "session_failure");
    }
    record operator()(const kelm::unknown_message &unknown) const
    {
        return record()
            .number("type", "message of another agent, type", unknown.type)
            .json("message", "unknown")
            .number("length", "bytes", unknown.body.size());
    }
    record operator()(const kelm::overrun &) const
    {
        return record()
            .json("message", "overrun")
            .text("", "events", "lost: they arrived faster than they were read");
    }
};

} // namespace

record report_record(const kelm::report &report, const kelm::interfaces &links)
{
    return std::visit(report_visitor{links}, report);
}

} // namespace kelmctl
