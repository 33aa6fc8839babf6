// SPDX-License-Identifier: GPL-2.0
//
// The module itself: what it asks of its host, and what the host calls to start and stop it.
#pragma once

#include "platform/label.h"

extern "C" {

// Takes a reference on the module, so that the host refuses to unload it in the ordinary way.
void module_get_self() KELM_PLATFORM(module_get_self);

// Strict mode, for machines with local users or networks that are not to be trusted: what kelm.h
// says of it. The host's choice, which it makes before kelm_init.
extern bool kelm_strict;

// Starts the engine. 0 or a negative error number; the host then proceeds as after kelm_exit.
// Task context; once, or again after kelm_release.
[[nodiscard]] int kelm_init();

// Stops the cleanup thread and unregisters the notifier. Vrfs, sockets and timers stand.
void kelm_exit();

// Takes down what kelm_exit leaves standing: the statistics timer, and every vrf with its
// sockets, sessions, packets and timers. For the host to call after kelm_exit, in task context,
// once no request and no device event can reach the engine any more and every dump has had its
// done call. Timers and received datagrams may still come; it waits for those that are being
// handled, and when it returns nothing that the engine made is left.
void kelm_release();
}
