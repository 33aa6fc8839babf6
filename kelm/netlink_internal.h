// SPDX-License-Identifier: GPL-2.0
//
// What the parts of the control channel offer to each other.
#pragma once

#include <cstdint>

#include "kelm/dump.h"
#include "kelm/netlink.h"
#include "platform/netlink.h"
#include "platform/timer.h"

#define netlink_log(level, ...) KELM_LOG("Netlink", level, __VA_ARGS__)
#define netlink_log_session(discriminator, level, ...)                                             \
    KELM_LOG_SESSION("Netlink", discriminator, level, __VA_ARGS__)

// Request handlers, called in the task of the sending agent with no lock held and with a
// reference on the vrf. Return 0 or a negative error number, which goes into the acknowledgement.
using handler_fn = int (*)(kelm_vrf *vrf, sk_buff *skb, const nlmsghdr *hdr);

int set_debug_level(kelm_vrf *vrf, sk_buff *skb, const nlmsghdr *hdr);
int handle_get_stats(kelm_vrf *vrf, sk_buff *skb, const nlmsghdr *hdr);
int handle_sync(kelm_vrf *vrf, sk_buff *skb, const nlmsghdr *hdr);
int set_session_stats_interval(kelm_vrf *vrf, sk_buff *skb, const nlmsghdr *hdr);

// The input of every vrf's netlink socket: one datagram from an agent.
void receive_netlink(sk_buff *skb);

// Vrfs (netlink_vrf.cpp).
void vrf_list_init();
int netdev_callback(notifier_block *nb, unsigned long event, void *info);
int kelm_vrf_cleanup(void *argument); // body of the cleanup thread
void release_all_vrfs();              // see kelm_release

// The newest vrf, with a reference; none if there is no vrf.
[[nodiscard]] vrf_ref first_vrf();

// The oldest vrf, with a reference; none if there is no vrf.
[[nodiscard]] vrf_ref last_vrf();

// The vrf behind this one in kelm_vrf_list, with a reference; none behind the last one, and none
// if the given vrf has left the list meanwhile.
[[nodiscard]] vrf_ref next_vrf(kelm_vrf *vrf);

// Debug levels (netlink_debug.cpp): global level 1, no level for any session.
void debug_init();

// Statistics and synchronisation (netlink_dump.cpp, netlink_sync.cpp).
extern relaxed<std::int32_t> vrf_mark; // what every message writes into its vrf's mark
void dump_init();
void sync_init();

// What a dump covers; owns the reference on the vrf that it is visiting.
struct dump_data {
    vrf_ref vrf; // none once a walk over all vrfs has finished
    std::uint32_t discriminator;
    std::uint32_t flags; // KELM_STATS_*
};

// Fills skb with statistics from where the dump state stands. Positive: call again with a fresh
// buffer; 0: complete. Never sleeps. dump->data is the dump_data.
[[nodiscard]] int send_stats(sk_buff *skb, netlink_callback *dump, bool unsolicited);

// Starts the dump of a request: fn fills its datagrams, and it begins at vrf. Task context.
[[nodiscard]] int start_dump(kelm_vrf *vrf, sk_buff *skb, const nlmsghdr *hdr,
                             std::uint32_t discriminator, std::uint32_t flags,
                             int (*fn)(sk_buff *skb, netlink_callback *dump));

// Adds one vrf to a dump, from where its state stands: receive, transmit and module phase. The
// result is send_stats'. moduledump may be null; type names the dump in the log.
[[nodiscard]] int dump_rxtx(sk_buff *skb, netlink_callback *dump, const dump_phases &phases,
                            bool unsolicited);

// Periodic statistics (netlink_session_stats.cpp). session_stats_stop returns once no run is in
// progress or will come.
void session_stats_init();
void session_stats_stop();
