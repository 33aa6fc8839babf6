/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The glue's own operations on namespaces.
 */
#ifndef KELM_PLATFORM_LINUX_NET_H
#define KELM_PLATFORM_LINUX_NET_H

/*
 * Keeps namespaces that are made from now on from the engine. When it returns, no other is still
 * being made: whether its making succeeded, the engine knows. To be called before kelm_exit(),
 * which stops the engine's cleanup thread. May sleep.
 */
void net_close(void);

#endif
