# SPDX-License-Identifier: GPL-2.0
"""The control channel as the host has it: framing, acknowledgements, dumps, groups, port ids. What
the requests do is tested on the simulation."""

import contextlib
import errno
import struct

import pytest

from lib import wait_until
from lib import protocol as p
from lib.agent import KERNEL, Agent
from lib.bfd import Bfd


def error_of(msg):
    assert msg.type == p.NLMSG_ERROR
    return -struct.unpack_from("=i", msg.body)[0]


def test_a_datagram_holds_several_messages(agent):
    """Each is answered to its sender, whatever it says of itself."""
    def request(seq, **options):
        return p.message(p.TX_DELETE_PACKET, struct.pack("=I", 7), seq=seq, **options)

    # 2 is no request, and acknowledged because it asks; what follows a bad length is lost.
    agent.send(request(1) + request(2, flags=p.NLM_F_ACK) + request(3, length=200) + request(4))
    for length in range(1, 16):
        if length != 12 or KERNEL:  # 12 bytes are kelmd's bind packet
            agent.send(bytes(range(length)))
    agent.send(request(5, pid=4711))
    answers = []
    while len(answers) < 3:
        answers += agent.receive()
    assert [(m.seq, m.pid, error_of(m)) for m in answers] == \
        [(1, agent.pid, errno.ENOENT), (2, agent.pid, 0), (5, agent.pid, errno.ENOENT)]
    assert answers[-1].body[4:20] == request(5, pid=4711)[:16], "what it answers"


def test_port_ids_are_unique_and_freed(link):
    with Agent(link.near_ns, pid=4711) as first:
        assert first.pid == 4711
        with pytest.raises(OSError) as refused:
            Agent(link.near_ns, pid=4711)
        assert refused.value.errno == errno.EADDRINUSE
        with Agent(link.near_ns) as second, Agent(link.near_ns) as third:
            assert len({first.pid, second.pid, third.pid}) == 3
            second.request(p.TX_PATH_READY, p.tx_path_ready())

    def reopened():
        with contextlib.suppress(OSError):
            return Agent(link.near_ns, pid=4711)

    wait_until(reopened, "port id of an agent that has gone").close()


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


def test_a_dump_comes_in_steps_and_tells_everything_once(agent):
    discs = list(range(1, 501))
    for disc in discs:
        agent.request(p.RX_SET_SESSION, p.rx_set_session(disc))
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
    *sessions, module = [m for datagram in datagrams for m in datagram]
    assert sorted(p.decode(m).disc for m in sessions) == discs and module.type == p.MODULE_STATS


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
