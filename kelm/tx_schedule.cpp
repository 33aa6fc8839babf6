// SPDX-License-Identifier: GPL-2.0
//
// Periods and jitter are microseconds, due times are ticks; each is rounded up to whole ticks on
// its own.
//
//   in band       last in-band transmission + period - jitter (RFC 5880, 6.8.7)
//   out of band   the next tick; afterwards the schedule goes on as if nothing had been sent
//   path ready    a random delay below the period, so that packets do not go out in step
#include "kelm/tx_schedule.h"

#include "kelm/guard.h"
#include "kelm/log.h"
#include "kelm/netlink_vrf.h"
#include "kelm/tx_table.h"
#include "kelm/tx_transmit.h"
#include "platform/clock.h"
#include "platform/random.h"

constinit relaxed<bool> kelm_tx_path_ready(false);

namespace
{
// Only while the packets that were stored are started.
constinit relaxed<bool> kelm_randomize_delay(false);

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

// From the last in-band transmission to the next one, microseconds.
struct interval {
    std::uint32_t base;
    std::uint32_t jitter; // to be subtracted
};

interval draw_interval(const tx_packet *packet, bool out_of_band)
{
    interval next = {0, jitter_usecs(packet)};
    if (!out_of_band)
        next.base = packet->period;
    // A packet that is still out of band when the path becomes ready is not delayed.
    if (!kelm_randomize_delay || next.base == 0)
        return next;
    const unsigned long delay = prandom_u32() % next.base;
    tx_log(packet->discriminator, 3, "Scheduling packet randomize_delay period %u delay %lu",
           packet->period, delay);
    return {static_cast<std::uint32_t>(delay), 0};
}

// An out-of-band transmission uses the timer; the tick it was due at is kept until that is over.
void save_due_tick(tx_packet *packet)
{
    packet->inband_expires = timer_expires(&packet->timer);
    tx_log(packet->discriminator, 3, "To schedule OOB packet, store in-band expires %lu",
           packet->inband_expires);
}

unsigned long restore_due_tick(tx_packet *packet)
{
    tx_log(packet->discriminator, 3, "Reschedule packet using last in-band expires %lu",
           packet->inband_expires);
    packet->send_oob_packet = false;
    return packet->inband_expires;
}

unsigned long next_due_tick(tx_packet *packet, bool is_callback)
{
    const bool out_of_band_begins = packet->send_oob_packet && !is_callback;
    const bool out_of_band_ends = packet->send_oob_packet && is_callback;
    if (out_of_band_begins)
        save_due_tick(packet);
    const interval next = draw_interval(packet, out_of_band_begins);
    const unsigned long jitter_ticks = __usecs_to_jiffies(next.jitter);
    unsigned long due = packet->last_tx_jiffies + __usecs_to_jiffies(next.base) - jitter_ticks;
    if (out_of_band_ends)
        due = restore_due_tick(packet);

    const unsigned long now = get_jiffies_64();
    // By their difference, since the jitter may take the due tick below zero.
    if (static_cast<long>(now - due) > 0)
        due = now + 1;
    tx_log(packet->discriminator, 3,
           "Scheduling packet %u to %lu now %lu jitter %lu packet->period %u",
           packet->discriminator, due, now, jitter_ticks, packet->period);
    return due;
}

// Marks every vrf as still to be started.
void mark_vrfs_pending()
{
    bh_guard lock(kelm_vrf_lock);
    kelm_vrf_list.for_each([](kelm_vrf &vrf) { vrf.path_ready_pending = true; });
}

// The first vrf in the list that is still to be started, no longer marked.
vrf_ref next_pending_vrf()
{
    bh_guard lock(kelm_vrf_lock);
    for (kelm_vrf *vrf = kelm_vrf_list.front(); vrf != nullptr; vrf = kelm_vrf_list.next(*vrf)) {
        if (vrf->path_ready_pending) {
            vrf->path_ready_pending = false;
            return vrf_ref(vrf);
        }
    }
    return {};
}

void trigger_all_packets(kelm_vrf *vrf)
{
    bh_guard table(tx_lock);
    for (std::uint32_t number = 0; number < chain_count; ++number)
        vrf->packets.chain(number).for_each([](tx_packet &packet) { tx_trigger(&packet, false); });
}
} // namespace

void tx_path_init()
{
    kelm_tx_path_ready = false;
    kelm_randomize_delay = false;
}

// Packets that are set from now on are scheduled at once; those stored so far are started here,
// vrf by vrf. A vrf that goes meanwhile takes its packets with it, one that comes has none yet.
void kelm_set_tx_path_ready()
{
    KELM_LOG("Tx", 2, "Setting kelm_tx_path_ready");
    if (kelm_tx_path_ready.exchange(true))
        return;
    kelm_randomize_delay = true;
    mark_vrfs_pending();
    while (const vrf_ref vrf = next_pending_vrf())
        trigger_all_packets(vrf.get());
    kelm_randomize_delay = false;
}

bool schedule_packet(tx_packet *packet, bool is_callback)
{
    if (packet->last_tx_jiffies == 0)
        packet->last_tx_jiffies = get_jiffies_64();
    const bool pending = mod_timer(&packet->timer, next_due_tick(packet, is_callback)) != 0;
    if (is_callback)
        return pending;
    if (!pending)
        packet->refcount.fetch_add(1, std::memory_order_relaxed);
    return false;
}
