// SPDX-License-Identifier: GPL-2.0
//
// Synchronisation with a restarted agent: the dump of everything that a vrf holds, and mark and
// sweep.
#pragma once

#include <cstdint>

#include "kelm/relaxed.h"

struct kelm_vrf;
struct nlmsghdr;
struct sk_buff;

// What every message writes into its vrf's mark.
extern relaxed<std::int32_t> vrf_mark;

// Module load.
void sync_init();

// The handler of KELM_MSG_SYNC, see handler_fn.
int handle_sync(kelm_vrf *vrf, sk_buff *skb, const nlmsghdr *hdr);
