# SPDX-License-Identifier: GPL-2.0
"""Detection in real time: never early, once, with the agent's own bytes; and not at all while packets
come, however busy the machine is."""

import os
import struct
import time

import pytest

import pytest

from lib import bfd, wait_until
from lib import protocol as p
from lib.agent import Agent
from lib.bfd import Bfd

TICK = 0.010  # detection counts whole ticks, the first of which may be almost over


def set_session(agent, disc=5, **options):
    options.setdefault("failure", p.failure_message(disc))
    agent.request(p.RX_SET_SESSION, p.rx_set_session(disc, flags=p.TIMER_ACTIVE, **options))


def stamped(event):
    return event, time.monotonic()


def test_a_silent_session_fails_once_and_not_early(agent):
    started = time.monotonic()
    set_session(agent, multiplier=3, period=100_000)
    failure, when = stamped(agent.event())
    assert failure.type == p.SESSION_FAILURE and failure.body == p.failure_message(5)[16:]
    assert when - started >= 0.300 - TICK
    # Nothing more of it, nor of sessions that are deleted or stopped in time.
    for disc in (6, 7):
        set_session(agent, disc, multiplier=1, period=2_000_000)
    agent.request(p.RX_DELETE_SESSION, struct.pack("=I", 6))
    agent.request(p.RX_SET_SESSION, p.rx_set_session(7, failure=p.failure_message(7)))
    set_session(agent, 8, multiplier=1, period=2_100_000)
    assert agent.event().body == p.failure_message(8)[16:]
    assert agent.stats(5)[0].num_timeout == 1


@pytest.mark.stalls_below(1.0)
def test_packets_keep_a_session_alive(agent, link):
    set_session(agent, multiplier=20, period=100_000)
    end = time.monotonic() + 3.0
    while time.monotonic() < end:
        link.send(Bfd(your_disc=5))
        assert agent.event(p.SESSION_FAILURE, timeout=0.1) is None


def test_both_ends_on_kelm(agent, link, host):
    """A session between two namespaces; packets are lost in one direction only."""
    host.wait_for_vrf(link.far_ns)
    period, groups = 50_000, (p.CONTROL, p.NOTIFICATION)
    with Agent(link.far_ns, groups=groups) as far_agent:
        for side, src, dst, mine in ((agent, link.near4, link.far4, 5),
                                     (far_agent, link.far4, link.near4, 6)):
            packet = bfd.ip_datagram(src, dst, Bfd(my_disc=mine, your_disc=11 - mine,
                                                   min_tx=period).pack())
            side.request(p.TX_SET_PACKET, p.tx_set_packet(mine, packet, period=period,
                                                          jitter=p.JITTER_75, latch_period=period))
            side.request(p.RX_SET_SESSION, p.rx_set_session(
                mine, flags=p.TIMER_ACTIVE, multiplier=40, period=period, latch=(mine,),
                failure=p.failure_message(mine)))
        assert agent.event(p.RX_PACKET_CHANGE, 5) and far_agent.event(p.RX_PACKET_CHANGE, 6)
        link.lose()
        assert far_agent.event(p.SESSION_FAILURE, 6)
        # The other end hears of it: the far end's packets say why, and keep its session alive.
        change = agent.event(p.RX_PACKET_CHANGE)
        told = Bfd.parse(p.decode(change).frame[42:])
        assert (told.state, told.diag, told.your_disc) == (bfd.DOWN, bfd.DIAG_CTRL_TIMEOUT, 0)


@pytest.mark.stalls_below(4.0)
def test_a_session_survives_a_loaded_machine(agent, link, host):
    hogs = []
    try:
        for _ in range(2 * os.cpu_count()):
            pid = os.fork()
            if pid == 0:
                while True:
                    pass
            hogs.append(pid)
        host.wait_for_vrf(link.far_ns)
        with Agent(link.far_ns) as far_agent:
            packet = bfd.ip_datagram(link.far4, link.near4, Bfd(my_disc=6, your_disc=5).pack())
            far_agent.request(p.TX_SET_PACKET, p.tx_set_packet(6, packet, period=300_000,
                                                               jitter=p.JITTER_75))
            set_session(agent, multiplier=30, period=300_000)
            wait_until(lambda: agent.stats(5)[0].num_received >= 20, "20 packets", poll=0.1)
            assert agent.event(p.SESSION_FAILURE, timeout=0.01) is None
    finally:
        for pid in hogs:
            os.kill(pid, 9)
            os.waitpid(pid, 0)
