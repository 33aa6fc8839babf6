// SPDX-License-Identifier: GPL-2.0
//
// The detection timeout: no acceptable packet for the detection time. What must not wait for the
// agent happens here: the failure message, which the agent has prepared, goes out, and the
// session's transmit packets are latched to tell the peer. The session stays, its timer stopped
// until the agent configures it again.
#include "kelm/guard.h"
#include "kelm/netlink.h"
#include "kelm/rx_internal.h"
#include "kelm/tx.h"
#include "platform/skbuff.h"

namespace
{
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
} // namespace

unsigned long start_timer(rx_session *session, unsigned long now)
{
    const std::uint32_t detection_usecs = session->multiplier * session->period;
    const unsigned long expiry = now + __usecs_to_jiffies(detection_usecs);
    mod_timer(&session->timer, expiry);
    session->timer_armed = true;
    return expiry;
}

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
    ++session->stats.num_timeout;
    session->timer_active = false;
    session->timer_armed = false;
    session->stats.last_state_change = wall_clock();
    send_failure(session);
    latch_tx_packets(session);
}
