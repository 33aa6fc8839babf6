// SPDX-License-Identifier: GPL-2.0
//
// The detection timer expires when no packet has been accepted for the detection time. What must
// not wait for the agent happens here: the failure message, which the agent has prepared, goes out,
// and the session's transmit packets are latched to tell the peer. The session stays, its timer
// stopped until the agent configures it again.
#include "kelm/rx_detection.h"

#include "kelm/clocks.h"
#include "kelm/guard.h"
#include "kelm/log.h"
#include "kelm/netlink.h"
#include "kelm/rx_table.h"
#include "kelm/tx_table.h"
#include "kelm/tx_transmit.h"
#include "platform/err.h"

namespace
{
// Starts the timer, or starts it over, and returns the tick at which it expires.
unsigned long start_timer(rx_session *session, unsigned long now)
{
    const std::uint32_t detection_usecs = session->multiplier * session->period;
    const unsigned long expiry = now + __usecs_to_jiffies(detection_usecs);
    mod_timer(&session->timer, expiry);
    session->timer_armed = true;
    return expiry;
}

// The session keeps the message for the next timeout; a reference of its own is sent.
void send_failure(rx_session *session)
{
    if (session->fail_skb == nullptr) {
        KELM_LOG("Rx", 1, "NULL fail_skb for %u", session->discriminator);
        return;
    }
    kelm_netlink_send_failure(session->vrf, skb_get(session->fail_skb));
}

void latch_tx_packets(const rx_session *session)
{
    for (tx_packet *packet : session->latch_tx_packets) {
        if (packet == nullptr)
            return;
        kelm_tx_latch(packet, session->latch_diagnostic);
    }
}

void release_tx_packets(rx_session *session)
{
    for (tx_packet *&packet : session->latch_tx_packets) {
        if (packet != nullptr)
            kelm_tx_put_packet(packet);
        packet = nullptr;
    }
}

// The timer's callback.
void rx_timeout(timer_list *timer)
{
    rx_session *session = container_of(timer, &rx_session::timer);
    rx_log(session->discriminator, 2, "Session %u timed out vrf %p", session->discriminator,
           static_cast<void *>(session->vrf));
    softirq_guard lock(session->lock);
    // While this callback waited for the lock, a packet may have arrived after all, or the agent
    // may have stopped or restarted the timer.
    if (!session->timer_armed || timer_pending(&session->timer))
        return;
    ++session->stats.counters.num_timeout;
    session->timer_active = false;
    session->timer_armed = false;
    session->stats.counters.last_state_change = wall_clock();
    send_failure(session);
    latch_tx_packets(session);
}
} // namespace

void init_detection(rx_session *session)
{
    timer_setup(&session->timer, rx_timeout);
}

int link_tx_packets(rx_session *session, kelm_vrf *vrf, const kelm_msg_rx_set_session &msg)
{
    release_tx_packets(session);
    for (std::size_t i = 0; i < KELM_NUM_LATCH_TX_PACKETS && msg.latch_tx_packets[i] != 0; ++i) {
        session->latch_tx_packets[i] = kelm_tx_get_packet(vrf, msg.latch_tx_packets[i]);
        if (session->latch_tx_packets[i] == nullptr)
            return -ENXIO;
    }
    return 0;
}

void configure_detection(rx_session *session)
{
    if (del_timer(&session->timer) == 0)
        rx_log(session->discriminator, 2, "Rx Timer wasn't active");
    session->timer_armed = false;
    if (session->timer_active)
        start_timer(session, get_jiffies_64());
}

void restart_detection(rx_session *session)
{
    if (!session->timer_active)
        return;
    const unsigned long now = get_jiffies_64();
    const unsigned long expiry = start_timer(session, now);
    rx_log(session->discriminator, 3, "Reset timer for session %u to %lu now %lu",
           session->discriminator, expiry, now);
}

void end_detection(rx_session *session)
{
    del_timer_sync(&session->timer);
    release_tx_packets(session);
}
