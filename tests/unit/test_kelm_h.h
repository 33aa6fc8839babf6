/* SPDX-License-Identifier: GPL-2.0 */
/* What the C half of the test of kelm.h offers to the C++ half. */
#ifndef TEST_KELM_H_H
#define TEST_KELM_H_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Each writes a message body into `size` bytes of 8-byte aligned room; its length, 0: no room. */
size_t c_agent_tx_set_packet(void *room, size_t size);
size_t c_agent_rx_set_session(void *room, size_t size);

#ifdef __cplusplus
}
#endif

#endif
