// SPDX-License-Identifier: GPL-2.0
//
// Dumps of the session table: statistics, and what a restarted agent needs to know.
#include "kelm/dump_walk.h"
#include "kelm/guard.h"
#include "kelm/message.h"
#include "kelm/rx_internal.h"

namespace
{
using rxfillfn = int (*)(sk_buff *skb, rx_session *session, const dump_request &request);

// The stored frame, if any.
int fill_packet_change(sk_buff *skb, rx_session *session, const dump_request &request)
{
    const stored_frame &frame = session->packet;
    if (frame.len == 0)
        return 0;
    const std::size_t body_len = sizeof(kelm_msg_rx_packet_change) + frame.len;
    if (!message_fits(skb, body_len))
        return -1;
    const kelm_msg_rx_packet_change msg =
        packet_change_message(session->discriminator, session->info, frame.len);
    nlmsghdr *hdr = __nlmsg_put(skb, request.portid, request.seq, KELM_MSG_RX_PACKET_CHANGE,
                                static_cast<int>(body_len), 0);
    auto *body = reinterpret_cast<std::uint8_t *>(hdr) + NLMSG_HDRLEN;
    std::memcpy(body, &msg, sizeof(msg));
    std::memcpy(body + sizeof(msg), frame.data, frame.len);
    return 0;
}

// The timer state. A session in the table has a failure message.
int fill_rx_sync(sk_buff *skb, rx_session *session, const dump_request &request)
{
    if (session->fail_skb == nullptr) {
        KELM_LOG("Rx", 1, "No fail_skb for %u in fill_rx_sync", session->discriminator);
        return 0;
    }
    if (!message_fits(skb, sizeof(kelm_msg_rx_sync)))
        return -1;
    kelm_msg_rx_sync msg = {};
    msg.header.discriminator = session->discriminator;
    msg.timer_active = session->timer_active;
    append_message(skb, request.portid, request.seq, KELM_MSG_RX_SYNC, msg);
    return 0;
}

// The session table of a vrf as dump_table walks it: up to two messages per session.
struct session_table {
    static constexpr const char *component = "Rx";
    static constexpr const char *table = "rx";
    static constexpr long steps = 2;

    kelm_vrf *vrf;
    rxfillfn fillfunc1;
    rxfillfn fillfunc2; // may be null
    const char *dump_type;

    static spinlock_t &lock() { return rx_lock; }
    [[nodiscard]] long seq() const { return vrf->sessions_seq; }
    [[nodiscard]] intrusive_list<rx_session> &chain(long bucket) const
    {
        return vrf->sessions[bucket];
    }
    int fill(sk_buff *skb, rx_session *session, long chain_depth, const dump_request &request) const
    {
        int result = 0;
        if (chain_depth % steps == 0) {
            rx_log(request.discriminator, 2, "Filling fillfunc1 %u (%ld)", session->discriminator,
                   chain_depth);
            result = fillfunc1(skb, session, request);
        } else if (fillfunc2 != nullptr) {
            rx_log(request.discriminator, 2, "Filling fillfunc2 %u (%ld)", session->discriminator,
                   chain_depth);
            result = fillfunc2(skb, session, request);
        }
        if (result != 0)
            rx_log(request.discriminator, 2, "skb full");
        return result;
    }
};
} // namespace

int kelm_rx_sync(kelm_vrf *vrf, sk_buff *skb, const dump_cursor &cursor,
                 const dump_request &request)
{
    return dump_table(session_table{vrf, fill_packet_change, fill_rx_sync, "rx_sync"}, skb, cursor,
                      request);
}

int kelm_rx_get_stats(kelm_vrf *vrf, sk_buff *skb, const dump_cursor &cursor,
                      const dump_request &request)
{
    return dump_table(session_table{vrf, fill_rx_stats, nullptr, "rx_getstats"}, skb, cursor,
                      request);
}

int kelm_rx_get_stats_single(kelm_vrf *vrf, sk_buff *skb, const dump_request &request)
{
    bh_guard table(rx_lock);
    rx_session *session = __get_session(vrf, request.discriminator);
    if (session != nullptr) {
        bh_guard lock(session->lock);
        static_cast<void>(fill_rx_stats(skb, session, request));
    }
    return 0;
}
