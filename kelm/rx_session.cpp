// SPDX-License-Identifier: GPL-2.0
//
// The session tables, and the requests that create, reconfigure and delete sessions. The handlers
// work under rx_lock, which holds up reception in every vrf: they allocate without sleeping and
// wait for nothing. What waits for a running timer callback, free_session, holds no lock.
#include "kelm/guard.h"
#include "kelm/message.h"
#include "kelm/netlink.h"
#include "kelm/record.h"
#include "kelm/rx_internal.h"
#include "kelm/tx.h"
#include "platform/err.h"

constinit spinlock_t rx_lock = {};

namespace
{
using session_chain = intrusive_list<rx_session>;

void clear_interval_stats(rx_session *session)
{
    clear_session_stats(&session->stats.lifetime_stats);
    clear_session_stats(&session->stats.snapshot_stats);
}

void init_session(rx_session *session, kelm_vrf *vrf)
{
    spin_lock_init(&session->lock, LOCK_RX_SESSION, "rx_session");
    timer_setup(&session->timer, rx_timeout);
    session->type = KELM_RX_SESSION_MAX;
    kelm_netlink_get_vrf(vrf);
    session->vrf = vrf;
    clear_interval_stats(session);
}

// A new session in the vrf's table, or null. The caller holds rx_lock.
rx_session *__create_session(kelm_vrf *vrf, std::uint32_t discriminator)
{
    rx_log(discriminator, 2, "Allocating new session");
    auto *session = new_record<rx_session>(GFP_ATOMIC);
    if (session == nullptr)
        return nullptr;
    init_session(session, vrf);
    vrf->sessions[disc_hash(discriminator)].push_back(*session);
    session->discriminator = discriminator;
    return session;
}

// Undoes __create_session. The caller holds rx_lock and has held it since, so that nobody else
// knows the session.
void __discard_session(rx_session *session)
{
    session->list.unlink();
    kelm_netlink_put_vrf(session->vrf);
    delete_record(session);
}

void __release_tx_packets(rx_session *session)
{
    for (tx_packet *&packet : session->latch_tx_packets) {
        if (packet != nullptr)
            kelm_tx_put_packet(packet);
        packet = nullptr;
    }
}

// Links the packets to latch, up to the first that does not exist.
int link_tx_packets(rx_session *session, kelm_vrf *vrf, const kelm_msg_rx_set_session &msg)
{
    for (std::size_t i = 0; i < KELM_NUM_LATCH_TX_PACKETS && msg.latch_tx_packets[i] != 0; ++i) {
        session->latch_tx_packets[i] = kelm_tx_get_packet(vrf, msg.latch_tx_packets[i]);
        if (session->latch_tx_packets[i] == nullptr)
            return -ENXIO;
    }
    return 0;
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
    return rx_socket_get(vrf, type) != nullptr ? 0 : -ESHUTDOWN;
}

void restart_timer(rx_session *session)
{
    if (del_timer(&session->timer) == 0)
        rx_log(session->discriminator, 2, "Rx Timer wasn't active");
    session->timer_armed = false;
    if (session->timer_active)
        start_timer(session, get_jiffies_64());
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
        clear_interval_stats(session);
    session->latch_diagnostic = msg.latch_diagnostic;
    __release_tx_packets(session);
    err = link_tx_packets(session, vrf, msg);
    if (err != 0)
        return err;
    restart_timer(session);
    session->stats.last_state_change = wall_clock();
    return 0;
}

int set_session(kelm_vrf *vrf, const kelm_msg_rx_set_session &msg)
{
    const std::uint32_t disc = msg.header.discriminator;
    bh_guard table(rx_lock);
    rx_log(disc, 2, "Got sessions lock");
    rx_session *session = __get_session(vrf, disc);
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
    // Nobody can find the session any more. Whoever did before has its lock, or a timer callback
    // is on its way to it.
    bh_guard(session->lock).unlock();
    del_timer_sync(&session->timer);
    __release_tx_packets(session);
    if (session->fail_skb != nullptr) {
        rx_log(disc, 2, "Consumed fail_skb for %u", disc);
        consume_skb(session->fail_skb);
    }
    kfree(session->packet.data);
    kelm_netlink_put_vrf(session->vrf);
    delete_record(session);
}
} // namespace

void kelm_rx_module_init()
{
    spin_lock_init(&rx_lock, LOCK_RX_TABLE, "rx_lock");
    rx_packet_init();
}

rx_session *__get_session(kelm_vrf *vrf, std::uint32_t discriminator)
{
    return find_in_chain(vrf->sessions[disc_hash(discriminator)], discriminator);
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
    rx_session *session = __get_session(vrf, disc);
    if (session == nullptr)
        return -ENOENT;
    session->list.unlink();
    ++vrf->sessions_seq;
    table.unlock();
    free_session(session);
    return 0;
}

void kelm_rx_clear(kelm_vrf *vrf)
{
    for (session_chain &chain : vrf->sessions) {
        session_chain removed;
        {
            bh_guard table(rx_lock);
            removed.take(chain);
        }
        while (rx_session *session = removed.pop_front())
            free_session(session);
    }
}

void kelm_rx_free(kelm_vrf *vrf)
{
    kelm_rx_clear(vrf);
    rx_free_sockets(vrf);
}
