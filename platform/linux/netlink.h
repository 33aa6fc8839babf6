/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The ways in which agents' tasks enter the engine, and how they are closed.
 */
#ifndef KELM_PLATFORM_LINUX_NETLINK_H
#define KELM_PLATFORM_LINUX_NETLINK_H

#include <linux/srcu.h>

/* Held for reading by every task that is in the engine with a request or a dump. */
extern struct srcu_struct agents_inside;

/*
 * Before the engine starts; 0 or a negative error number. After everything else.
 */
int netlink_open(void);
void netlink_close(void);

/*
 * From its return on, requests are ignored, and none is being handled. Task context.
 */
void netlink_close_requests(void);

/*
 * Ends every dump that is under way, with an error for its reader. From its return on, the kernel
 * calls nothing here for any of them. After netlink_close_requests(), task context.
 */
void netlink_end_dumps(void);

#endif
