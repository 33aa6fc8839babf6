# SPDX-License-Identifier: GPL-2.0
"""The agent protocol: numbers, bodies of requests, decoding of answers."""

import errno
import struct
from collections import namedtuple

NLMSG_ERROR, NLMSG_DONE, NLMSG_OVERRUN = 2, 3, 4
NLM_F_REQUEST, NLM_F_MULTI, NLM_F_ACK = 0x1, 0x2, 0x4

TX_SET_PACKET, TX_DELETE_PACKET, TX_STATS, TX_SYNC = 16, 17, 18, 19
RX_SET_SESSION, RX_DELETE_SESSION, RX_STATS, RX_PACKET_CHANGE, RX_SYNC = 20, 21, 22, 23, 24
GET_STATS, SYNC, SESSION_FAILURE, SET_DEBUG_LEVEL, TX_PATH_READY = 25, 26, 27, 28, 29
MODULE_STATS, SET_SESSION_STATS_INTERVAL = 30, 31
KELM_ONLY = (TX_STATS, TX_SYNC, RX_STATS, RX_PACKET_CHANGE, RX_SYNC, SESSION_FAILURE, MODULE_STATS)

CONTROL, NOTIFICATION = 1, 2  # multicast groups

TX_IP, TX_L2 = 0, 1
JITTER_NONE, JITTER_75, JITTER_75_90 = 0, 1, 2
SEND_OOB, TX_MYDISC_RTT = 1, 2
RX_BFD, RX_ECHO, RX_LAG, RX_MULTIHOP, RX_SBFD = range(5)
RX_PORTS = {RX_BFD: 3784, RX_ECHO: 3785, RX_LAG: 6784, RX_MULTIHOP: 4784, RX_SBFD: 47657}
TIMER_ACTIVE, RX_MYDISC_RTT = 1, 2
TTL_255, TTL_254 = 1, 2
STATS_CLEAR, STATS_NO_REPORT, STATS_MODULE, STATS_ALL_VRFS = 1, 2, 4, 8
SYNC_MARK, SYNC_SWEEP = 1, 2
DEBUG_CLEAR_SESSIONS = 1

HEADER = struct.Struct("=IHHII")


class KelmError(OSError):
    """A request that was refused; errno says why."""

    def __init__(self, number, _text=None):
        super().__init__(number, errno.errorcode.get(number, str(number)))


Message = namedtuple("Message", "type flags seq pid body")


def message(type, body=b"", flags=NLM_F_REQUEST | NLM_F_ACK, seq=1, pid=0, length=None):
    length = HEADER.size + len(body) if length is None else length
    return HEADER.pack(length, type, flags, seq, pid) + body + bytes(-len(body) % 4)


def parse(datagram):
    """The messages of a datagram; anything malformed is kelm's fault."""
    messages = []
    while datagram:
        length, type, flags, seq, pid = HEADER.unpack_from(datagram)
        assert HEADER.size <= length <= len(datagram), f"bad length {length} of {len(datagram)}"
        messages.append(Message(type, flags, seq, pid, datagram[HEADER.size:length]))
        datagram = datagram[(length + 3) & ~3:]
    return messages


def auth_config(ifindex=0, type=0, flags=0):
    return struct.pack("=IBBxx", ifindex, type, flags)


def auth_key(key=b"", key_id=0, valid=True):
    return struct.pack("=20sBBxx", key, key_id, valid)


def tx_set_packet(disc, packet, *, ifindex=0, type=TX_IP, jitter=JITTER_NONE, period=100_000,
                  ip_hdr_offset=0, latch_offset=28, latch_period=1_000_000, latch_state=1, flags=0,
                  auth_type=0, auth_hdr=b"", packet_len=None):
    return struct.pack("=IIHHIIIIBBxx", disc, ifindex, type, jitter, period, ip_hdr_offset,
                       latch_offset, latch_period, latch_state, flags) + \
        auth_config(type=auth_type) + struct.pack("=28sI", auth_hdr, len(packet)
                                                  if packet_len is None else packet_len) + packet


def rx_set_session(disc, *, type=RX_BFD, flags=0, multiplier=3, latch_diagnostic=1, latch=(),
                   period=100_000, auth=auth_config(), keys=(), failure=b"", failure_len=None):
    keys = b"".join(keys).ljust(48, b"\0")
    return struct.pack("=IBBBB8II", disc, type, flags, multiplier, latch_diagnostic,
                       *latch, *[0] * (8 - len(latch)), period) + auth + keys + \
        struct.pack("=I", len(failure) if failure_len is None else failure_len) + failure


def failure_message(disc):
    """What the tests' agent has kelm multicast when a session fails."""
    return message(SESSION_FAILURE, struct.pack("=I", disc) + b"down", flags=0, seq=0)


def get_stats(disc=0, flags=0):
    return struct.pack("=II", disc, flags)


def sync(flags=0):
    return struct.pack("=II", 0, flags)


def set_debug_level(disc, level, flags=0):
    return struct.pack("=IIHxx", disc, flags, level)


def tx_path_ready(disc=0):
    return struct.pack("=I", disc)


def stats_interval(seconds, disc=0):
    return struct.pack("=IHxx", disc, seconds)


def _decoder(name, layout, fields):
    record = struct.Struct("=" + layout)
    kind = namedtuple(name, fields)
    return lambda body: kind(*record.unpack_from(body))


_DECODERS = {
    TX_STATS: _decoder("TxStats", "IIII 2I 10Q Q3I4x4Q QQB7x", """
        disc min_lateness avg_lateness max_lateness last_tx_sec last_tx_nsec num_sent num_tx_errors
        num_empty_packets num_short_packets num_latch_errors num_latches sent_within_1p
        sent_within_2p sent_within_3p sent_after_3p snapshot_num_sent snapshot_min_lateness
        snapshot_avg_lateness snapshot_max_lateness snapshot_sent_within_1p snapshot_sent_within_2p
        snapshot_sent_within_3p snapshot_sent_after_3p timestamp_secs timestamp_nsecs
        unsolicited"""),
    RX_STATS: _decoder("RxStats", "IIII 2I2I 7Q Q3I4x 7I4x QQB7x", """
        disc min_period avg_period max_period last_rx_sec last_rx_nsec last_change_sec
        last_change_nsec num_received num_auth_fail num_passup num_auth_type_mismatch
        packet_alloc_fail pskb_expand_fail num_timeout snapshot_num_received snapshot_min_period
        snapshot_avg_period snapshot_max_period min_rtt avg_rtt max_rtt last_rtt snapshot_min_rtt
        snapshot_avg_rtt snapshot_max_rtt timestamp_secs timestamp_nsecs unsolicited"""),
    MODULE_STATS: _decoder("ModuleStats", "II10Q QQQBB6x", """
        disc num_not_passed_up rfc_drops rx_packet_missing num_invalid_sessions num_passup_disc_0
        netlink_packet_change_fail netlink_failure_fail pskb_expand_fail session_stats_no_skb_fail
        session_stats_send_stats_fail session_stats_broadcast_fail timestamp_secs timestamp_nsecs
        seq_num unsolicited strict"""),
    RX_SYNC: _decoder("RxSync", "II", "disc timer_active"),
    TX_SYNC: _decoder("TxSync", "I", "disc"),
}

PacketChange = namedtuple("PacketChange", "disc ifindex member_ifindex l3_offset bfd_offset frame")


def decode(msg):
    """The body of a message from kelm as a named tuple."""
    if msg.type == RX_PACKET_CHANGE:
        *fields, length = struct.unpack_from("=6I", msg.body)
        assert len(msg.body) == 24 + length
        return PacketChange(*fields, msg.body[24:])
    return _DECODERS[msg.type](msg.body)
