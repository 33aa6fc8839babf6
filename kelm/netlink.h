// SPDX-License-Identifier: GPL-2.0
//
// What the control channel offers to the other components: vrfs and notifications.
#pragma once

#include <cstdint>
#include <utility>

#include "kelm/kelm_internal.h"

struct net;
struct sk_buff;

// Guards kelm_vrf_list and, during a sweep, the vrfs' marks. Held for list walks and short field
// updates only: no allocation, no socket operation, no reference drop.
extern spinlock_t kelm_vrf_lock;

struct by_vrfs {
    static constexpr list_link kelm_vrf::*member() { return &kelm_vrf::vrfs; }
};

// Every live vrf, newest first. A vrf that has left it is linked to itself.
extern intrusive_list<kelm_vrf, by_vrfs> kelm_vrf_list;

// References on a vrf. Dropping one is safe in any context and never sleeps, kelm_vrf_lock not
// held: a vrf without references is destroyed by the cleanup thread.
void kelm_netlink_get_vrf(kelm_vrf *vrf);
void kelm_netlink_put_vrf(kelm_vrf *vrf);

// The one owner of a reference on a vrf, or of none.
class vrf_ref
{
  public:
    vrf_ref() = default;
    // Takes a reference of its own.
    explicit vrf_ref(kelm_vrf *vrf) : vrf_(vrf)
    {
        if (vrf_ != nullptr)
            kelm_netlink_get_vrf(vrf_);
    }
    ~vrf_ref() { reset(); }
    vrf_ref(vrf_ref &&other) noexcept : vrf_(std::exchange(other.vrf_, nullptr)) {}
    vrf_ref &operator=(vrf_ref &&other) noexcept
    {
        std::swap(vrf_, other.vrf_);
        other.reset();
        return *this;
    }
    vrf_ref(const vrf_ref &) = delete;
    vrf_ref &operator=(const vrf_ref &) = delete;

    void reset()
    {
        if (vrf_ != nullptr)
            kelm_netlink_put_vrf(std::exchange(vrf_, nullptr));
    }
    [[nodiscard]] kelm_vrf *get() const { return vrf_; }
    kelm_vrf *operator->() const { return vrf_; }
    explicit operator bool() const { return vrf_ != nullptr; }

  private:
    kelm_vrf *vrf_ = nullptr;
};

// The vrf of a namespace, or none.
[[nodiscard]] vrf_ref find_vrf(net *net);

// Hand a finished message to the agents of a vrf. The buffer is taken over whatever happens; what
// cannot be delivered is counted in the vrf's statistics. The caller holds a reference on the vrf
// or knows otherwise that its socket stands.
//
// Multicasts, any context: a frame that the agent must see, a session's failure message.
void kelm_netlink_send_packet_change(kelm_vrf *vrf, sk_buff *skb);
void kelm_netlink_send_failure(kelm_vrf *vrf, sk_buff *skb);

// Unicast without waiting, task context: 0 or the negative error of the send.
[[nodiscard]] int kelm_netlink_send_stats(kelm_vrf *vrf, sk_buff *skb, std::uint32_t portid);
