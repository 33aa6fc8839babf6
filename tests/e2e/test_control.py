# SPDX-License-Identifier: GPL-2.0
"""The control channel: framing, acknowledgements, errors, dumps, groups, port ids."""

import contextlib
import errno
import socket
import struct

import pytest

from lib import bfd, wait_until
from lib import protocol as p
from lib.agent import KERNEL, Agent
from lib.bfd import Bfd
from lib.protocol import KelmError
from lib.netns import in_namespace

BFD = Bfd(my_disc=7).pack()
SECTION = bfd.auth_section(bfd.KEYED_MD5, secret=b"k")


def refusal(agent, type, body):
    """The error number with which a request is refused, 0 if it is not."""
    try:
        agent.request(type, body)
    except KelmError as error:
        return error.errno
    return 0


def error_of(msg):
    assert msg.type == p.NLMSG_ERROR
    return -struct.unpack_from("=i", msg.body)[0]


def test_requests_are_refused_with_the_reason(agent, link):
    packet = link.packet(BFD)
    authenticated = link.packet(Bfd(my_disc=7, auth=SECTION).pack())
    cases = [
        ("type above the last", 32, b"", errno.ENOMSG),
        ("packet 0", p.TX_SET_PACKET, p.tx_set_packet(0, packet), errno.EINVAL),
        ("packet type", p.TX_SET_PACKET, p.tx_set_packet(7, packet, type=2), errno.EAFNOSUPPORT),
        ("period 0", p.TX_SET_PACKET, p.tx_set_packet(7, packet, period=0), errno.EINVAL),
        ("one byte more", p.TX_SET_PACKET, p.tx_set_packet(7, packet + b"x"), errno.EINVAL),
        ("one byte less", p.TX_SET_PACKET, p.tx_set_packet(7, packet[:-1]), errno.EINVAL),
        ("A bit, no type", p.TX_SET_PACKET, p.tx_set_packet(7, authenticated), errno.EINVAL),
        ("A bit, type 6", p.TX_SET_PACKET, p.tx_set_packet(7, authenticated, auth_type=6),
         errno.EINVAL),
        ("type, too little room", p.TX_SET_PACKET,
         p.tx_set_packet(7, packet, auth_type=bfd.KEYED_MD5, auth_hdr=SECTION), errno.EINVAL),
        ("no such packet", p.TX_DELETE_PACKET, struct.pack("=I", 7), errno.ENOENT),
        ("deleting packet 0", p.TX_DELETE_PACKET, bytes(4), errno.EINVAL),
        ("session 0", p.RX_SET_SESSION, p.rx_set_session(0), errno.EINVAL),
        ("session type", p.RX_SET_SESSION, p.rx_set_session(7, type=5), errno.EAFNOSUPPORT),
        ("no such session", p.RX_DELETE_SESSION, struct.pack("=I", 7), errno.ENOENT),
        ("deleting session 0", p.RX_DELETE_SESSION, bytes(4), errno.EINVAL),
        ("statistics of nothing", p.GET_STATS, p.get_stats(7), errno.ENOENT),
        ("path ready for one", p.TX_PATH_READY, p.tx_path_ready(5), errno.ENODATA),
        ("interval for one", p.SET_SESSION_STATS_INTERVAL, p.stats_interval(1, disc=3),
         errno.EINVAL),
    ]
    cases += [(f"type {type} is kelm's to send", type, bytes(200), errno.EPERM)
              for type in p.KELM_ONLY]
    # Offsets at every limit: the headers have to lie inside the packet, whatever wraps around.
    for latch, ip_hdr in ((0, 0), (7, 0), (8, 0), (27, 0), (28, 1), (28, 8), (28, 28), (28, 52),
                          (28, 0xFFFFFFF8), (28, 0xFFFFFFFF), (0xFFFFFFE8, 0), (0xFFFFFFFF, 0)):
        cut = packet[max(28 - latch, 0):] if latch != 0xFFFFFFE8 else b""
        body = p.tx_set_packet(7, cut, latch_offset=latch, ip_hdr_offset=ip_hdr)
        cases.append((f"offsets {latch:#x}, {ip_hdr:#x}", p.TX_SET_PACKET, body, errno.EINVAL))
    got = [(name, refusal(agent, type, body)) for name, type, body, _ in cases]
    assert got == [(name, expected) for name, _, _, expected in cases]
    assert agent.dump(p.SYNC, p.sync()) == [], "nothing came of any of them"


def test_a_session_with_an_unknown_latch_packet_is_kept(agent):
    body = p.rx_set_session(9, latch=(4711,), flags=p.TIMER_ACTIVE)
    assert refusal(agent, p.RX_SET_SESSION, body) == errno.ENXIO
    assert [(s.disc, s.timer_active) for s in agent.dump(p.SYNC, p.sync())] == [(9, 1)]


def test_short_requests_are_refused_and_change_nothing(agent, link):
    whole = {
        p.TX_SET_PACKET: p.tx_set_packet(7, link.packet(BFD)),
        p.RX_SET_SESSION: p.rx_set_session(7, failure=p.failure_message(7)),
        p.TX_DELETE_PACKET: struct.pack("=I", 7),
        p.RX_DELETE_SESSION: struct.pack("=I", 7),
        p.GET_STATS: p.get_stats(7),
        p.SYNC: p.sync(p.SYNC_SWEEP),
        p.SET_DEBUG_LEVEL: p.set_debug_level(0, 3),
        p.TX_PATH_READY: p.tx_path_ready(),
        p.SET_SESSION_STATS_INTERVAL: p.stats_interval(1),
    }
    for type, body in whole.items():
        for length in range(len(body)):
            assert refusal(agent, type, body[:length]) == errno.EINVAL, (type, length)
    assert agent.dump(p.SYNC, p.sync()) == []
    for claimed in (len(whole[p.TX_SET_PACKET]), 0x7FFFFFFF, 0xFFFFFFFF):
        body = p.tx_set_packet(7, link.packet(BFD), packet_len=claimed)
        assert refusal(agent, p.TX_SET_PACKET, body) == errno.EINVAL
        body = p.rx_set_session(7, failure=b"", failure_len=claimed)
        assert refusal(agent, p.RX_SET_SESSION, body) == errno.EINVAL
    assert agent.dump(p.SYNC, p.sync()) == []


def test_several_messages_in_one_datagram(agent):
    def request(seq, type=p.TX_DELETE_PACKET, disc=7, **options):
        return p.message(type, struct.pack("=I", disc), seq=seq, **options)

    quiet = p.NLM_F_REQUEST
    agent.send(request(1) + request(2, p.TX_PATH_READY, 0, flags=quiet) + request(3) +
               request(4, 15) + request(5, flags=p.NLM_F_ACK) + request(6, flags=0) +
               request(7, 32, flags=quiet) + request(8, length=15) + request(9))
    answers = []
    while not answers or answers[-1].seq != 7:
        answers += agent.receive()
    # 4 is below kelm's types and 5 is no request: skipped, and acknowledged because they ask.
    assert [(m.seq, error_of(m)) for m in answers] == \
        [(1, errno.ENOENT), (3, errno.ENOENT), (4, 0), (5, 0), (7, errno.ENOMSG)]
    # What follows a bad length is lost; the next datagram is read from its start.
    agent.send(request(10, length=200) + request(11))
    agent.send(request(12))
    assert [m.seq for m in agent.receive()] == [12]


def test_an_acknowledgement_repeats_the_request_and_names_its_sender(agent):
    body = struct.pack("=I", 7)
    agent.send(p.message(p.RX_DELETE_SESSION, body, seq=77, pid=4711))
    (answer,) = agent.receive()
    assert (answer.seq, answer.pid) == (77, agent.pid)
    assert answer.body[4:20] == p.message(p.RX_DELETE_SESSION, body, seq=77, pid=4711)[:16]


def test_datagrams_too_short_for_a_message_are_ignored(agent):
    for length in range(1, 16):
        if length != 12 or KERNEL:  # 12 bytes are kelmd's bind packet
            agent.send(bytes(range(length)))
    agent.request(p.TX_PATH_READY, p.tx_path_ready())


def test_port_ids_are_unique_and_freed(link):
    with Agent(link.near_ns, pid=4711) as first:
        assert first.pid == 4711
        with pytest.raises(OSError) as refused:
            Agent(link.near_ns, pid=4711)
        assert refused.value.errno == errno.EADDRINUSE
        with Agent(link.near_ns) as second, Agent(link.near_ns) as third:
            assert len({first.pid, second.pid, third.pid}) == 3
            second.request(p.TX_PATH_READY, p.tx_path_ready())

    def is_free():
        try:
            Agent(link.near_ns, pid=4711).close()
        except OSError:
            return False
        return True

    wait_until(is_free, "port id of an agent that has gone")


def test_groups_are_joined_and_left(agent, link):
    """A subscriber of one group hears nothing of the other."""
    with Agent(link.near_ns, groups=[p.NOTIFICATION]) as failures, Agent(link.near_ns) as changing:
        assert failures.groups == {p.NOTIFICATION} and changing.groups == set()
        changing.bind(groups=[p.CONTROL, p.NOTIFICATION])
        assert changing.groups == {p.CONTROL, p.NOTIFICATION}
        agent.request(p.RX_SET_SESSION, p.rx_set_session(
            5, flags=p.TIMER_ACTIVE, multiplier=1, period=50_000, failure=p.failure_message(5)))
        link.send(Bfd(your_disc=5))
        assert changing.event(p.RX_PACKET_CHANGE, 5)
        assert changing.event(p.SESSION_FAILURE, 5)
        assert failures.event().type == p.SESSION_FAILURE
        failures.bind()
        assert failures.groups == set()


def test_statistics_of_one_session_come_in_one_datagram(agent, link):
    agent.request(p.RX_SET_SESSION, p.rx_set_session(5))
    agent.request(p.TX_SET_PACKET, p.tx_set_packet(5, link.packet(Bfd(my_disc=5).pack())))
    agent.send(p.message(p.GET_STATS, p.get_stats(5), seq=99, flags=p.NLM_F_REQUEST))
    assert [(m.type, m.flags, m.seq, m.pid) for m in agent.receive()] == \
        [(p.TX_STATS, 0, 99, agent.pid), (p.RX_STATS, 0, 99, agent.pid)]
    assert [s.disc for s in agent.stats(5, p.STATS_CLEAR)] == [5, 5]


def test_a_dump_comes_in_steps_and_tells_everything_once(agent, link):
    discs = set(range(1, 501))
    for disc in discs:
        agent.request(p.RX_SET_SESSION, p.rx_set_session(disc, failure=p.failure_message(disc)))
    packet = link.packet(BFD)
    for disc in (1, 33, 1000):
        agent.request(p.TX_SET_PACKET, p.tx_set_packet(disc, packet, period=60_000_000))

    # What follows in the same datagram finds the dump started and its first part unread.
    agent.send(p.message(p.GET_STATS, p.get_stats(flags=p.STATS_MODULE), seq=1) +
               p.message(p.SYNC, p.sync(), seq=2) +
               p.message(p.TX_DELETE_PACKET, struct.pack("=I", 2), seq=3))
    datagrams, answers = [], {}
    while not datagrams or datagrams[-1][-1].type != p.NLMSG_DONE or len(answers) < 2:
        messages = agent.receive()
        if messages[0].seq == 1:
            datagrams.append(messages)
        else:
            answers.update((m.seq, error_of(m)) for m in messages)
    assert answers == {2: errno.EBUSY, 3: errno.ENOENT}, "one dump at a time, but other requests"
    assert datagrams[-1].pop().flags == p.NLM_F_MULTI

    assert len(datagrams) > 2, "500 sessions do not fit into one"
    messages = [m for datagram in datagrams for m in datagram]
    kinds = {kind: [p.decode(m).disc for m in messages if m.type == kind]
             for kind in (p.RX_STATS, p.TX_STATS, p.MODULE_STATS)}
    assert sorted(kinds[p.RX_STATS]) == sorted(discs)
    assert sorted(kinds[p.TX_STATS]) == [1, 33, 1000]
    assert kinds[p.MODULE_STATS] == [0]
    assert sum(map(len, kinds.values())) == len(messages)


def test_a_deletion_during_a_dump_hides_nobody(agent, link):
    for disc in range(1, 401):
        agent.request(p.RX_SET_SESSION, p.rx_set_session(disc))
    seq = agent.start_dump(p.GET_STATS, p.get_stats())
    with_first = agent.receive()
    with Agent(link.near_ns) as other:
        other.request(p.RX_DELETE_SESSION, struct.pack("=I", 32))
    rest = [m for datagram in agent.finish_dump(seq) for m in datagram]
    assert {p.decode(m).disc for m in with_first + rest} | {32} == set(range(1, 401))


def test_sync_dump_mark_and_sweep(agent, link, namespaces):
    agent.request(p.RX_SET_SESSION, p.rx_set_session(5, flags=p.TIMER_ACTIVE, period=60_000_000))
    agent.request(p.RX_SET_SESSION, p.rx_set_session(6))
    agent.request(p.TX_SET_PACKET, p.tx_set_packet(8, link.packet(BFD), period=60_000_000))
    sent = Bfd(your_disc=5).pack()
    link.send(sent)
    assert agent.event(p.RX_PACKET_CHANGE, 5)

    change, first, second, packet = agent.dump(p.SYNC, p.sync())
    assert change.disc == 5 and change.frame.endswith(sent)
    assert (first, second) == ((5, 1), (6, 0)) and packet == (8,)

    other_ns = namespaces.add()
    with Agent(other_ns) as other:
        other.request(p.RX_SET_SESSION, p.rx_set_session(5))
        agent.request(p.SYNC, p.sync(p.SYNC_MARK))
        agent.request(p.TX_PATH_READY, p.tx_path_ready())  # any request claims the namespace
        agent.request(p.SYNC, p.sync(p.SYNC_SWEEP))
        assert other.dump(p.SYNC, p.sync()) == []
        assert len(agent.dump(p.SYNC, p.sync())) == 4
        agent.request(p.SYNC, p.sync(p.SYNC_SWEEP))
        assert agent.dump(p.SYNC, p.sync()) == [], "a sweep without a mark empties everything"


def test_an_agent_that_stops_reading_is_told_what_it_missed(agent, link):
    """It loses events and learns of it; another subscriber loses nothing."""
    with in_namespace(link.far_ns):
        sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    with sender, Agent(link.near_ns, groups=[p.CONTROL], rcvbuf=4096) as sleeper:
        received, count = 0, 3000
        for number in range(count):
            payload = Bfd(your_disc=77, min_tx=number).pack().ljust(8000, b"\0")
            sender.sendto(payload, (link.near4, 3784))
            if number % 4 == 3:  # the other one keeps up
                for _ in range(4):
                    assert agent.event(p.RX_PACKET_CHANGE, 77)
        while True:
            try:
                messages = sleeper.receive()
            except OSError as error:  # netlink's own way of telling
                assert KERNEL and error.errno == errno.ENOBUFS
                break
            if messages[0].type == p.NLMSG_OVERRUN:
                break
            received += len(messages)
        assert received < count
        with contextlib.suppress(TimeoutError):  # netlink answers only once the queue is empty
            while True:
                sleeper.receive(timeout=0.05)
        sleeper.request(p.TX_PATH_READY, p.tx_path_ready())


def test_periodic_statistics_go_to_the_initial_namespace(agent, link):
    agent.request(p.RX_SET_SESSION, p.rx_set_session(5))
    with Agent(groups=[p.CONTROL]) as listener:
        listener.request(p.SET_SESSION_STATS_INTERVAL, p.stats_interval(1))
        try:
            first = p.decode(listener.event(p.MODULE_STATS))
            assert p.decode(listener.event(p.RX_STATS, 5)).unsolicited == 1
            wait_until(lambda: p.decode(listener.event(p.MODULE_STATS)).timestamp_secs >
                       first.timestamp_secs, "second run")
        finally:
            listener.request(p.SET_SESSION_STATS_INTERVAL, p.stats_interval(0))
    assert agent.event(p.RX_STATS, timeout=0.01) is None


def test_debug_levels(agent):
    for disc in range(1, 101):
        agent.request(p.SET_DEBUG_LEVEL, p.set_debug_level(disc, 1))
    assert refusal(agent, p.SET_DEBUG_LEVEL, p.set_debug_level(101, 1)) == errno.ENOSR
    agent.request(p.SET_DEBUG_LEVEL, p.set_debug_level(100, 2))
    agent.request(p.SET_DEBUG_LEVEL, p.set_debug_level(0, 0, p.DEBUG_CLEAR_SESSIONS))
    agent.request(p.SET_DEBUG_LEVEL, p.set_debug_level(101, 1))
    agent.request(p.SET_DEBUG_LEVEL, p.set_debug_level(101, 0))
