// SPDX-License-Identifier: GPL-2.0
//
// The handlers work under rx_lock, which holds up reception in every vrf: they allocate without
// sleeping and wait for nothing. What waits for a running timer callback, free_session, holds no
// lock.
#include "kelm/rx_table.h"

#include <cstring>

#include "kelm/clocks.h"
#include "kelm/guard.h"
#include "kelm/log.h"
#include "kelm/message.h"
#include "kelm/netlink_vrf.h"
#include "kelm/record.h"
#include "kelm/rx_detection.h"
#include "platform/err.h"

constinit spinlock_t rx_lock = {};

namespace
{
// A new session in the vrf's table, or null. The caller holds rx_lock.
rx_session *__create_session(kelm_vrf *vrf, std::uint32_t discriminator)
{
    rx_log(discriminator, 2, "Allocating new session");
    auto *session = new_record<rx_session>(GFP_ATOMIC);
    if (session == nullptr)
        return nullptr;
    spin_lock_init(&session->lock, rank_rx_session, "rx_session");
    init_detection(session);
    session->discriminator = discriminator;
    session->type = KELM_RX_SESSION_MAX;
    kelm_netlink_get_vrf(vrf);
    session->vrf = vrf;
    vrf->sessions.append(*session);
    return session;
}

// Undoes __create_session. The caller holds rx_lock and has held it since, so that the session has
// no other user.
void __discard_session(rx_session *session)
{
    session->vrf->sessions.take_back(*session);
    kelm_netlink_put_vrf(session->vrf);
    delete_record(session);
}

void replace_failure_message(rx_session *session, sk_buff *fail_skb,
                             const kelm_msg_rx_set_session &msg)
{
    rx_log(session->discriminator, 2, "Copying failed packet data of %d bytes",
           static_cast<int>(msg.failure_packet_len));
    netlink_skb_set_portid(fail_skb, 0);
    std::memcpy(skb_put(fail_skb, msg.failure_packet_len), msg.failure_packet,
                msg.failure_packet_len);
    sk_buff *old_skb = session->fail_skb;
    session->fail_skb = fail_skb;
    consume_skb(old_skb);
}

void copy_settings(rx_session *session, const kelm_msg_rx_set_session &msg)
{
    session->timer_active = (msg.flags & KELM_RX_TIMER_ACTIVE) != 0;
    session->mydisc_rtt = (msg.flags & KELM_RX_MYDISC_RTT) != 0;
    session->period = msg.period;
    session->multiplier = msg.multiplier;
    session->auth = msg.auth;
    std::memcpy(session->auth_key, msg.auth_key, sizeof(session->auth_key));
    if (msg.multiplier * msg.period == 0)
        KELM_LOG("Rx", 1, "Session %u has zero detect time %u * %u", session->discriminator,
                 msg.multiplier, msg.period);
}

int change_type(rx_session *session, kelm_vrf *vrf, std::uint32_t type)
{
    if (session->type == type)
        return 0;
    rx_log(session->discriminator, 2, "Changing type from %d to %d",
           static_cast<int>(session->type), static_cast<int>(type));
    session->type = type;
    return vrf->rx_sockets[type] != nullptr ? 0 : -ESHUTDOWN;
}

// What fails here leaves what was set before it in place, and the timer and its report as they
// were.
int configure(rx_session *session, kelm_vrf *vrf, sk_buff *fail_skb,
              const kelm_msg_rx_set_session &msg)
{
    replace_failure_message(session, fail_skb, msg);
    const kelm_microsecs old_period = session->period;
    copy_settings(session, msg);
    int err = change_type(session, vrf, msg.type);
    if (err != 0)
        return err;
    if (session->period != old_period)
        session->stats.restart();
    session->latch_diagnostic = msg.latch_diagnostic;
    err = link_tx_packets(session, vrf, msg);
    if (err != 0)
        return err;
    configure_detection(session);
    session->stats.counters.last_state_change = wall_clock();
    return 0;
}

int set_session(kelm_vrf *vrf, const kelm_msg_rx_set_session &msg)
{
    const std::uint32_t disc = msg.header.discriminator;
    vrf->sessions.make_room(rx_lock);
    bh_guard table(rx_lock);
    rx_log(disc, 2, "Got sessions lock");
    rx_session *session = vrf->sessions.find(disc);
    if (session == nullptr) {
        session = __create_session(vrf, disc);
        if (session == nullptr)
            return -ENOMEM;
    }
    bh_guard lock(session->lock);
    rx_log(disc, 2, "Got session lock");
    sk_buff *fail_skb = alloc_skb(msg.failure_packet_len, GFP_ATOMIC);
    if (fail_skb != nullptr)
        return configure(session, vrf, fail_skb, msg);

    KELM_LOG("Rx", 1, "Failed to allocate failed packet");
    const bool is_new = session->fail_skb == nullptr;
    lock.unlock();
    if (is_new)
        __discard_session(session);
    return -ENOMEM;
}

// Frees a session that has left its chain. Task context, no lock held.
void free_session(rx_session *session)
{
    const std::uint32_t disc = session->discriminator;
    // The session cannot be found any more, but the receive path may still hold its lock, or a
    // timer callback be about to take it.
    bh_guard(session->lock).unlock();
    end_detection(session);
    if (session->fail_skb != nullptr) {
        rx_log(disc, 2, "Consumed fail_skb for %u", disc);
        consume_skb(session->fail_skb);
    }
    forget(session->packet, session->room);
    kelm_netlink_put_vrf(session->vrf);
    delete_record(session);
}
} // namespace

void rx_table_init()
{
    spin_lock_init(&rx_lock, rank_rx_table, "rx_lock");
}

int kelm_rx_set_session(kelm_vrf *vrf, sk_buff *, const nlmsghdr *hdr)
{
    const auto *msg = request_body<kelm_msg_rx_set_session>(hdr);
    if (msg == nullptr || !request_has_tail<kelm_msg_rx_set_session>(hdr, msg->failure_packet_len))
        return -EINVAL;
    const std::uint32_t disc = msg->header.discriminator;
    rx_log(disc, 2, "Processing RX_SET_SESSION for session %u vrf %p", disc,
           static_cast<void *>(vrf));
    if (disc == 0)
        return -EINVAL;
    if (msg->type >= KELM_RX_SESSION_MAX)
        return -EAFNOSUPPORT;
    const int result = set_session(vrf, *msg);
    rx_log(disc, 2, "Returning %d", result);
    return result;
}

int kelm_rx_delete_session(kelm_vrf *vrf, sk_buff *, const nlmsghdr *hdr)
{
    const auto *msg = request_body<kelm_msg_rx_delete_session>(hdr);
    if (msg == nullptr)
        return -EINVAL;
    const std::uint32_t disc = msg->header.discriminator;
    rx_log(disc, 2, "Processing RX_DELETE_SESSION for session %u vrf %p", disc,
           static_cast<void *>(vrf));
    if (disc == 0)
        return -EINVAL;
    bh_guard table(rx_lock);
    rx_session *session = vrf->sessions.find(disc);
    if (session == nullptr)
        return -ENOENT;
    vrf->sessions.remove(*session);
    table.unlock();
    free_session(session);
    return 0;
}

void kelm_rx_clear(kelm_vrf *vrf)
{
    for (std::uint32_t number = 0; number < chain_count; ++number) {
        intrusive_list<rx_session> removed;
        {
            bh_guard table(rx_lock);
            vrf->sessions.empty_chain(number, removed);
        }
        while (rx_session *session = removed.pop_front())
            free_session(session);
    }
}
