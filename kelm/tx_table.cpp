// SPDX-License-Identifier: GPL-2.0
//
// A deleted packet leaves its table at once and is dead; it is freed when its last reference goes,
// a pending timer's or a receive session's.
#include "kelm/tx_table.h"

#include "kelm/guard.h"
#include "kelm/log.h"
#include "kelm/netlink_vrf.h"
#include "kelm/record.h"
#include "kelm/tx_transmit.h"

constinit spinlock_t tx_lock = {};

namespace
{
struct by_alive {
    static constexpr list_link tx_packet::*member() { return &tx_packet::alive; }
};
constinit intrusive_list<tx_packet, by_alive> alive_packets; // guarded by tx_lock

using packet_chain = intrusive_list<tx_packet>;

void warn_broken_invariants(tx_packet *packet)
{
    if (packet_chain::is_linked(*packet)) {
        WARN("Packet structure with 0 refcount still in hash table. packet: %p, dead: %d",
             static_cast<void *>(packet), packet->dead);
        packet->vrf->packets.take_back(*packet);
    }
    if (del_timer(&packet->timer) != 0)
        WARN("Timer pending for packet structure with 0 refcount. packet: %p, dead: %d",
             static_cast<void *>(packet), packet->dead);
}

// A packet of any vrf, the given one first. The caller holds kelm_vrf_lock and tx_lock.
tx_packet *find_in_all_vrfs(kelm_vrf *vrf, std::uint32_t discriminator)
{
    tx_packet *packet = vrf->packets.find(discriminator);
    for (kelm_vrf *other = kelm_vrf_list.front(); packet == nullptr && other != nullptr;
         other = kelm_vrf_list.next(*other))
        packet = other->packets.find(discriminator);
    return packet;
}
} // namespace

void tx_table_init()
{
    spin_lock_init(&tx_lock, rank_tx_table, "tx_lock");
}

tx_packet *__create_packet(kelm_vrf *vrf, std::uint32_t discriminator)
{
    auto *packet = new_record<tx_packet>(GFP_ATOMIC);
    if (packet == nullptr)
        return nullptr;
    packet->discriminator = discriminator;
    spin_lock_init(&packet->lock, rank_tx_packet, "tx_packet");
    packet->refcount = 1;
    timer_setup(&packet->timer, tx_trigger_callback);
    packet->vrf = vrf;
    packet->type = KELM_TX_SESSION_MAX;
    vrf->packets.append(*packet);
    alive_packets.push_back(*packet);
    return packet;
}

void __put_packet(tx_packet *packet, bool force)
{
    bh_guard lock(packet->lock);
    if (force)
        packet->dead = true;
    if (packet->refcount.fetch_sub(1, std::memory_order_acq_rel) > 1)
        return;
    tx_log(packet->discriminator, 3, "Unlinking tx %u on last ref", packet->discriminator);
    forget(packet->packet, packet->room);
    packet->sk = nullptr;
    warn_broken_invariants(packet);
    alive_packets.unlink(*packet);
    tx_log(packet->discriminator, 2, "Free tx_packet");
    lock.unlock();
    delete_record(packet);
}

tx_packet *kelm_tx_get_packet(kelm_vrf *vrf, std::uint32_t discriminator)
{
    bh_guard vrfs(kelm_vrf_lock);
    bh_guard table(tx_lock);
    tx_packet *packet = find_in_all_vrfs(vrf, discriminator);
    if (packet != nullptr)
        packet->refcount.fetch_add(1, std::memory_order_relaxed);
    return packet;
}

void kelm_tx_put_packet(tx_packet *packet)
{
    bh_guard table(tx_lock);
    tx_log(packet->discriminator, 3, "Releasing tx packet %u", packet->discriminator);
    __put_packet(packet, false);
}

void kelm_tx_clear(kelm_vrf *vrf)
{
    for (std::uint32_t number = 0; number < chain_count; ++number) {
        packet_chain removed;
        {
            bh_guard table(tx_lock);
            vrf->packets.empty_chain(number, removed);
        }
        while (tx_packet *packet = removed.pop_front()) {
            bh_guard table(tx_lock);
            __put_packet(packet, true);
        }
    }
}

void kelm_tx_release()
{
    for (;;) {
        tx_packet *packet;
        {
            bh_guard table(tx_lock);
            packet = alive_packets.pop_front();
            if (packet == nullptr)
                return;
            packet->refcount.fetch_add(1, std::memory_order_relaxed);
        }
        // Every packet is dead by now, so that its timer is not armed again.
        if (del_timer_sync(&packet->timer) != 0)
            kelm_tx_put_packet(packet);
        kelm_tx_put_packet(packet);
    }
}
