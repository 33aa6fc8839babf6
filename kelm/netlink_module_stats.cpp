// SPDX-License-Identifier: GPL-2.0
#include "kelm/netlink_module_stats.h"

#include <iterator>

#include "kelm/clocks.h"
#include "kelm/dump.h"
#include "kelm/kelm_internal.h"
#include "kelm/message.h"
#include "platform/module.h"

namespace
{
// Each counter with the field of 64 bits that reports it, null for none.
constexpr struct {
    atomic_counter kelm_module_stats::*counter;
    std::uint64_t kelm_msg_module_stats::*field;
} counters[] = {
    {&kelm_module_stats::rfc_drops, &kelm_msg_module_stats::rfc_drops},
    {&kelm_module_stats::rx_packet_missing, &kelm_msg_module_stats::rx_packet_missing},
    {&kelm_module_stats::num_invalid_sessions, &kelm_msg_module_stats::num_invalid_sessions},
    {&kelm_module_stats::num_passup_disc_0, &kelm_msg_module_stats::num_passup_disc_0},
    {&kelm_module_stats::num_not_passed_up, nullptr},
    {&kelm_module_stats::netlink_packet_change_fail,
     &kelm_msg_module_stats::netlink_packet_change_fail},
    {&kelm_module_stats::netlink_failure_fail, &kelm_msg_module_stats::netlink_failure_fail},
    {&kelm_module_stats::netlink_stats_fail, nullptr},
    {&kelm_module_stats::pskb_expand_fail, &kelm_msg_module_stats::pskb_expand_fail},
    {&kelm_module_stats::session_stats_no_skb_fail,
     &kelm_msg_module_stats::session_stats_no_skb_fail},
    {&kelm_module_stats::session_stats_send_stats_fail,
     &kelm_msg_module_stats::session_stats_send_stats_fail},
    {&kelm_module_stats::session_stats_broadcast_fail,
     &kelm_msg_module_stats::session_stats_broadcast_fail},
};
static_assert(sizeof(kelm_module_stats) == std::size(counters) * sizeof(atomic_counter));

// The number of the next periodic message.
constinit atomic_counter module_stats_seq = 1;

// Takes the next number if it is unsolicited.
kelm_msg_module_stats stats_message(const kelm_module_stats &stats, bool unsolicited)
{
    kelm_msg_module_stats msg = {};
    for (const auto &[counter, field] : counters) {
        const std::int64_t value = (stats.*counter).load(std::memory_order_relaxed);
        if (field != nullptr)
            msg.*field = static_cast<std::uint64_t>(value);
    }
    msg.num_not_passed_up =
        static_cast<std::uint32_t>(stats.num_not_passed_up.load(std::memory_order_relaxed));
    msg.strict = kelm_strict;
    set_timestamp(msg);
    const std::int64_t seq = unsolicited ? module_stats_seq++ : module_stats_seq.load();
    msg.seq_num = static_cast<std::uint64_t>(seq);
    msg.unsolicited = unsolicited;
    return msg;
}
} // namespace

void module_stats_init()
{
    module_stats_seq = 1;
}

int module_get_stats(kelm_vrf *vrf, sk_buff *skb, const dump_cursor &, const dump_request &request)
{
    if (!(request.flags & KELM_STATS_MODULE))
        return 0;
    if (!(request.flags & KELM_STATS_NO_REPORT)) {
        if (!message_fits(skb, sizeof(kelm_msg_module_stats)))
            return -1;
        append_message(skb, request.portid, request.seq, KELM_MSG_MODULE_STATS,
                       stats_message(vrf->stats, request.unsolicited));
    }
    if (request.flags & KELM_STATS_CLEAR) {
        for (const auto &each : counters)
            (vrf->stats.*each.counter).store(0, std::memory_order_relaxed);
    }
    return 0;
}
