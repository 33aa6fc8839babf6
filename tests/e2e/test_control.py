# SPDX-License-Identifier: GPL-2.0
"""The control channel as the host has it: framing, acknowledgements, dumps, groups, port ids. What
the requests do is tested on the simulation."""

import contextlib
import errno
import socket
import struct

import pytest

from lib import wait_until
from lib import protocol as p
from lib.agent import KERNEL, Agent
from lib.bfd import Bfd
from lib.netns import in_namespace


def error_of(msg):
    assert msg.type == p.NLMSG_ERROR
    return -struct.unpack_from("=i", msg.body)[0]


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
    # What follows a bad length is lost, as is what is too short for a message.
    agent.send(request(10, length=200) + request(11))
    for length in range(1, 16):
        if length != 12 or KERNEL:  # 12 bytes are kelmd's bind packet
            agent.send(bytes(range(length)))
    agent.send(request(12, pid=4711))
    (answer,) = agent.receive()
    assert (answer.seq, answer.pid) == (12, agent.pid), "its sender, whatever it says of itself"
    assert answer.body[4:20] == request(12, pid=4711)[:16], "what it answers"


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
