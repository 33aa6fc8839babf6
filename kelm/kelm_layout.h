/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Proof that the messages of kelm.h are laid out as agents and kelm have agreed, in C and in C++:
 * the size of each structure, and where each field lies.
 */
#pragma once

#include "kelm.h"

BFD_ASSERT_SIZE(struct kelm_time, 8);
BFD_ASSERT_OFFSET(struct kelm_time, sec, 0);
BFD_ASSERT_OFFSET(struct kelm_time, nsec, 4);

BFD_ASSERT_SIZE(struct kelm_auth_config, 8);
BFD_ASSERT_OFFSET(struct kelm_auth_config, ifindex, 0);
BFD_ASSERT_OFFSET(struct kelm_auth_config, type, 4);
BFD_ASSERT_OFFSET(struct kelm_auth_config, flags, 5);
BFD_ASSERT_OFFSET(struct kelm_auth_config, padding, 6);

BFD_ASSERT_SIZE(struct kelm_bfd_auth_key, 24);
BFD_ASSERT_OFFSET(struct kelm_bfd_auth_key, key, 0);
BFD_ASSERT_OFFSET(struct kelm_bfd_auth_key, key_id, 20);
BFD_ASSERT_OFFSET(struct kelm_bfd_auth_key, key_valid, 21);
BFD_ASSERT_OFFSET(struct kelm_bfd_auth_key, padding, 22);

BFD_ASSERT_SIZE(struct kelm_msg_header, 4);
BFD_ASSERT_OFFSET(struct kelm_msg_header, discriminator, 0);

BFD_ASSERT_SIZE(struct kelm_msg_tx_set_packet, 72);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_set_packet, header, 0);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_set_packet, ifindex, 4);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_set_packet, type, 8);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_set_packet, jitter_type, 10);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_set_packet, period, 12);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_set_packet, ip_hdr_offset, 16);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_set_packet, latch_offset, 20);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_set_packet, latch_period, 24);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_set_packet, latch_state, 28);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_set_packet, flags, 29);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_set_packet, padding, 30);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_set_packet, auth, 32);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_set_packet, auth_hdr, 40);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_set_packet, packet_len, 68);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_set_packet, packet, 72);

BFD_ASSERT_SIZE(struct kelm_msg_tx_delete_packet, 4);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_delete_packet, header, 0);

BFD_ASSERT_SIZE(struct kelm_msg_rx_set_session, 104);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_set_session, header, 0);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_set_session, type, 4);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_set_session, flags, 5);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_set_session, multiplier, 6);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_set_session, latch_diagnostic, 7);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_set_session, latch_tx_packets, 8);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_set_session, period, 40);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_set_session, auth, 44);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_set_session, auth_key, 52);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_set_session, failure_packet_len, 100);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_set_session, failure_packet, 104);

BFD_ASSERT_SIZE(struct kelm_msg_rx_delete_session, 4);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_delete_session, header, 0);

BFD_ASSERT_SIZE(struct kelm_msg_get_stats, 8);
BFD_ASSERT_OFFSET(struct kelm_msg_get_stats, header, 0);
BFD_ASSERT_OFFSET(struct kelm_msg_get_stats, flags, 4);

BFD_ASSERT_SIZE(struct kelm_msg_sync, 8);
BFD_ASSERT_OFFSET(struct kelm_msg_sync, header, 0);
BFD_ASSERT_OFFSET(struct kelm_msg_sync, flags, 4);

BFD_ASSERT_SIZE(struct kelm_msg_set_debug_level, 12);
BFD_ASSERT_OFFSET(struct kelm_msg_set_debug_level, header, 0);
BFD_ASSERT_OFFSET(struct kelm_msg_set_debug_level, flags, 4);
BFD_ASSERT_OFFSET(struct kelm_msg_set_debug_level, debug_level, 8);
BFD_ASSERT_OFFSET(struct kelm_msg_set_debug_level, padding, 10);

BFD_ASSERT_SIZE(struct kelm_msg_tx_path_ready, 4);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_path_ready, header, 0);

BFD_ASSERT_SIZE(struct kelm_msg_set_session_stats_interval, 8);
BFD_ASSERT_OFFSET(struct kelm_msg_set_session_stats_interval, header, 0);
BFD_ASSERT_OFFSET(struct kelm_msg_set_session_stats_interval, interval, 4);
BFD_ASSERT_OFFSET(struct kelm_msg_set_session_stats_interval, padding, 6);

BFD_ASSERT_SIZE(struct kelm_msg_tx_stats, 184);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, header, 0);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, min_lateness, 4);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, avg_lateness, 8);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, max_lateness, 12);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, last_tx_time, 16);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, num_sent, 24);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, num_tx_errors, 32);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, num_empty_packets, 40);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, num_short_packets, 48);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, num_latch_errors, 56);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, num_latches, 64);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, sent_within_1p, 72);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, sent_within_2p, 80);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, sent_within_3p, 88);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, sent_after_3p, 96);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, snapshot_num_sent, 104);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, snapshot_min_lateness, 112);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, snapshot_avg_lateness, 116);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, snapshot_max_lateness, 120);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, padding, 124);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, snapshot_sent_within_1p, 128);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, snapshot_sent_within_2p, 136);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, snapshot_sent_within_3p, 144);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, snapshot_sent_after_3p, 152);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, timestamp_secs, 160);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, timestamp_nsecs, 168);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, unsolicited, 176);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_stats, padding2, 177);

BFD_ASSERT_SIZE(struct kelm_msg_tx_sync, 4);
BFD_ASSERT_OFFSET(struct kelm_msg_tx_sync, header, 0);

BFD_ASSERT_SIZE(struct kelm_msg_rx_stats, 168);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, header, 0);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, min_period, 4);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, avg_period, 8);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, max_period, 12);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, last_rx_time, 16);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, last_state_change, 24);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, num_received, 32);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, num_auth_fail, 40);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, num_passup, 48);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, num_auth_type_mismatch, 56);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, packet_alloc_fail, 64);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, pskb_expand_fail, 72);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, num_timeout, 80);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, snapshot_num_received, 88);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, snapshot_min_period, 96);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, snapshot_avg_period, 100);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, snapshot_max_period, 104);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, padding, 108);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, min_rtt, 112);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, avg_rtt, 116);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, max_rtt, 120);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, last_rtt, 124);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, snapshot_min_rtt, 128);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, snapshot_avg_rtt, 132);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, snapshot_max_rtt, 136);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, padding2, 140);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, timestamp_secs, 144);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, timestamp_nsecs, 152);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, unsolicited, 160);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_stats, padding3, 161);

BFD_ASSERT_SIZE(struct kelm_msg_rx_packet_change, 24);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_packet_change, header, 0);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_packet_change, ifindex, 4);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_packet_change, member_ifindex, 8);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_packet_change, l3_offset, 12);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_packet_change, bfd_offset, 16);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_packet_change, packet_len, 20);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_packet_change, packet, 24);

BFD_ASSERT_SIZE(struct kelm_msg_rx_sync, 8);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_sync, header, 0);
BFD_ASSERT_OFFSET(struct kelm_msg_rx_sync, timer_active, 4);

BFD_ASSERT_SIZE(struct kelm_msg_module_stats, 120);
BFD_ASSERT_OFFSET(struct kelm_msg_module_stats, header, 0);
BFD_ASSERT_OFFSET(struct kelm_msg_module_stats, num_not_passed_up, 4);
BFD_ASSERT_OFFSET(struct kelm_msg_module_stats, rfc_drops, 8);
BFD_ASSERT_OFFSET(struct kelm_msg_module_stats, rx_packet_missing, 16);
BFD_ASSERT_OFFSET(struct kelm_msg_module_stats, num_invalid_sessions, 24);
BFD_ASSERT_OFFSET(struct kelm_msg_module_stats, num_passup_disc_0, 32);
BFD_ASSERT_OFFSET(struct kelm_msg_module_stats, netlink_packet_change_fail, 40);
BFD_ASSERT_OFFSET(struct kelm_msg_module_stats, netlink_failure_fail, 48);
BFD_ASSERT_OFFSET(struct kelm_msg_module_stats, pskb_expand_fail, 56);
BFD_ASSERT_OFFSET(struct kelm_msg_module_stats, session_stats_no_skb_fail, 64);
BFD_ASSERT_OFFSET(struct kelm_msg_module_stats, session_stats_send_stats_fail, 72);
BFD_ASSERT_OFFSET(struct kelm_msg_module_stats, session_stats_broadcast_fail, 80);
BFD_ASSERT_OFFSET(struct kelm_msg_module_stats, timestamp_secs, 88);
BFD_ASSERT_OFFSET(struct kelm_msg_module_stats, timestamp_nsecs, 96);
BFD_ASSERT_OFFSET(struct kelm_msg_module_stats, seq_num, 104);
BFD_ASSERT_OFFSET(struct kelm_msg_module_stats, unsolicited, 112);
BFD_ASSERT_OFFSET(struct kelm_msg_module_stats, strict, 113);
BFD_ASSERT_OFFSET(struct kelm_msg_module_stats, padding, 114);
