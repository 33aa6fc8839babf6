// SPDX-License-Identifier: GPL-2.0
//
// Vrfs, one per network namespace: their list, the references on them, their creation and end.
#pragma once

#include <utility>

#include "kelm/kelm_internal.h"
#include "platform/net.h"
#include "platform/spinlock.h"

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

// The newest and the oldest vrf; none if there is no vrf.
[[nodiscard]] vrf_ref first_vrf();
[[nodiscard]] vrf_ref last_vrf();

// The vrf behind this one in kelm_vrf_list; none behind the last one, and none if the given vrf has
// left the list meanwhile.
[[nodiscard]] vrf_ref next_vrf(kelm_vrf *vrf);

// For the module's start and stop: module load; the device notifier, which creates vrfs; the body
// of the cleanup thread, which destroys them; and the end of all of them, see kelm_release.
void vrf_list_init();
int netdev_callback(notifier_block *nb, unsigned long event, void *info);
int kelm_vrf_cleanup(void *argument);
void release_all_vrfs();
