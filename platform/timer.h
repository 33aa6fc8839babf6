// SPDX-License-Identifier: GPL-2.0
//
// One-shot timers on the tick counter.
//
//  - The callback runs in softirq context, never before its tick, and with no lock held. A
//    timer's callback never runs on two processors at once for one expiry, but a timer that
//    is armed again while its callback runs may expire on another processor meanwhile.
//  - A timer is not pending from the moment its callback is about to be called.
//  - A timer armed for now or for the past fires at the next tick, never within the pass
//    over expired timers that is under way.
//  - Timers are not copied or moved. Their memory may be freed after del_timer_sync(), or once the
//    callback has begun and nobody has armed the timer since: a callback may free its own timer.
#pragma once

#include "platform/label.h"
#include "platform/storage.h"

struct timer_list {
    alignas(KELM_STORAGE_ALIGN) unsigned char storage[KELM_TIMER_SIZE];
};

extern "C" {

using timer_function = void (*)(timer_list *timer);

// Prepares a timer, unarmed. To be called before any other use, again only while it is neither
// pending nor running. Any context.
void timer_setup(timer_list *timer, timer_function function) KELM_PLATFORM(timer_setup);

// Arms the timer for tick expires, or moves it there. Returns 1 if it was pending, else 0.
// Any context, from the timer's own callback too.
int mod_timer(timer_list *timer, unsigned long expires) KELM_PLATFORM(mod_timer);

// Disarms the timer; does not wait for a callback that is running. Returns 1 if it was
// pending, else 0. Any context.
int del_timer(timer_list *timer) KELM_PLATFORM(del_timer);

// Disarms the timer and waits until its callback is not running anywhere. Returns 1 if it was
// pending, else 0. Task context, without any lock that the callback takes.
int del_timer_sync(timer_list *timer) KELM_PLATFORM(del_timer_sync);

// Any context; stable only under a lock that is held wherever the timer is armed or disarmed.
[[nodiscard]] bool timer_pending(const timer_list *timer) KELM_PLATFORM(timer_pending);

// The tick for which the timer was last armed, 0 if it never was. Any context.
[[nodiscard]] unsigned long timer_expires(const timer_list *timer) KELM_PLATFORM(timer_expires);
}
