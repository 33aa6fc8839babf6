/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Faults on demand, in the test build of the module alone (KELM_FAULTS): the module parameter
 * fail_at counts down at every call of a service that can fail, and the call at which it reaches 0
 * fails.
 */
#ifndef KELM_PLATFORM_LINUX_FAULT_H
#define KELM_PLATFORM_LINUX_FAULT_H

#include <linux/types.h>

#ifdef KELM_FAULTS
bool fault_due(void);
#else
static inline bool fault_due(void)
{
    return false;
}
#endif

#endif
