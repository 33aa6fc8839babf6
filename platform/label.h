// SPDX-License-Identifier: GPL-2.0
//
// The platform interface: the services that the engine needs of its host, under the names
// that the Linux kernel gives them. One header per service; each declaration carries the
// service's contract: calling context, ownership, errors.
//
// Contexts are the kernel's. "Task" may sleep; "softirq" (the receive callback and every
// timer callback) may not, nor may the holder of a spinlock. "Any" means both.
//
// Every service has C linkage and a symbol of its own, kelm_ in front of the name, so that
// the engine can be linked into a kernel beside the functions it names.
#pragma once

#define KELM_PLATFORM(service) asm("kelm_" #service)
