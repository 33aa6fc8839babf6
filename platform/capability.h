// SPDX-License-Identifier: GPL-2.0
//
// Privilege.
#pragma once

#include "platform/label.h"

// The kernel's own name and number, so that a host may include the kernel's header as well.
#define CAP_NET_ADMIN 12

extern "C" {

// Whether both the task whose request is being handled and the one that opened the socket that it
// came by hold the capability. The request's own task.
[[nodiscard]] bool capable(int capability) KELM_PLATFORM(capable);
}
