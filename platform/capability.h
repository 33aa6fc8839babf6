// SPDX-License-Identifier: GPL-2.0
//
// Privilege.
#pragma once

#include "platform/label.h"

inline constexpr int CAP_NET_ADMIN = 12;

extern "C" {

// Whether the task whose request is being handled holds the capability. The request's own task.
[[nodiscard]] bool capable(int capability) KELM_PLATFORM(capable);
}
