// SPDX-License-Identifier: GPL-2.0
//
// When a packet goes out next. Periods and jitter are microseconds, due times are ticks; each is
// rounded up to whole ticks on its own.
//
//   in band       last in-band transmission + period - jitter (RFC 5880, 6.8.7)
//   out of band   the next tick; afterwards the rhythm goes on as if nothing had been sent
//   path ready    a random delay below the period, so that packets do not go out in step
#include "kelm/tx_internal.h"
#include "platform/random.h"

namespace
{
// How much the interval is shortened at random, microseconds. Periods too short to divide are
// not shortened.
std::uint32_t jitter_reduction(std::uint32_t jitter_type, kelm_microsecs period)
{
    const std::uint32_t random = prandom_u32();
    switch (jitter_type) {
    case BFD_TX_JITTER_75:
        return period >= 4 ? random % (period / 4) : 0;
    case BFD_TX_JITTER_75_90:
        return period >= 7 ? random % (period / 7) + period / 10 : 0;
    default:
        return 0;
    }
}

// Half a tick on top, since the rounding to ticks would on average lengthen the interval by it.
std::uint32_t jitter_usecs(const tx_packet *packet)
{
    if (packet->period == 0)
        return 0;
    return jitter_reduction(packet->jitter_type, packet->period) + (jiffies_to_usecs(1) >> 1);
}

unsigned long due_tick(tx_packet *packet, bool is_callback)
{
    const std::uint32_t disc = packet->discriminator;
    std::uint32_t jitter = jitter_usecs(packet);
    std::uint32_t base = packet->period;
    if (packet->send_oob_packet && !is_callback) {
        const unsigned long expires = timer_expires(&packet->timer);
        tx_log(disc, 3, "To schedule OOB packet, store in-band expires %lu", expires);
        packet->inband_expires = expires;
        base = 0;
    }
    // A packet that is still out of band when the path becomes ready is not delayed.
    if (kelm_randomize_delay && base != 0) {
        const std::uint32_t delay = prandom_u32() % base;
        tx_log(disc, 3, "Scheduling packet randomize_delay period %u delay %lu", packet->period,
               static_cast<unsigned long>(delay));
        base = delay;
        jitter = 0;
    }

    unsigned long due;
    if (packet->send_oob_packet && is_callback) {
        due = packet->inband_expires;
        tx_log(disc, 3, "Reschedule packet using last in-band expires %lu", due);
        packet->send_oob_packet = false;
    } else {
        due = packet->last_tx_jiffies + __usecs_to_jiffies(base) - __usecs_to_jiffies(jitter);
    }
    const unsigned long now = get_jiffies_64();
    // The difference, since the jitter may take the due tick below zero.
    if (static_cast<long>(now - due) > 0)
        due = now + 1;
    tx_log(disc, 3, "Scheduling packet %u to %lu now %lu jitter %lu packet->period %u", disc, due,
           now, __usecs_to_jiffies(jitter), packet->period);
    return due;
}
} // namespace

bool schedule_packet(tx_packet *packet, bool is_callback)
{
    if (packet->last_tx_jiffies == 0)
        packet->last_tx_jiffies = get_jiffies_64();
    const bool pending = mod_timer(&packet->timer, due_tick(packet, is_callback)) != 0;
    if (is_callback)
        return pending;
    if (!pending)
        packet->refcount.fetch_add(1, std::memory_order_relaxed);
    return false;
}
