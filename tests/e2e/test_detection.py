# SPDX-License-Identifier: GPL-2.0
"""Detection in real time: never early, once, with the agent's own bytes; and not at all while packets
come, however busy the machine is."""

import contextlib
import os
import struct
import subprocess
import time

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


@contextlib.contextmanager
def busy_machine():
    hogs = [subprocess.Popen(["sh", "-c", "while :; do :; done"])
            for _ in range(2 * os.cpu_count())]
    try:
        yield
    finally:
        for hog in hogs:
            hog.kill()
            hog.wait()


@pytest.mark.stalls_below(4.0)
def test_both_ends_on_a_busy_machine(agent, link, host):
    """A session between two namespaces stays up until packets are lost, in one direction only."""
    host.wait_for_vrf(link.far_ns)
    period = 150_000
    with busy_machine(), \
            Agent(link.far_ns, groups=(p.CONTROL, p.NOTIFICATION)) as far_agent:
        ends = ((agent, link.near4, link.far4, 5), (far_agent, link.far4, link.near4, 6))
        for side, src, dst, mine in ends:
            packet = bfd.ip_datagram(src, dst, Bfd(my_disc=mine, your_disc=11 - mine,
                                                   min_tx=period).pack())
            side.request(p.TX_SET_PACKET, p.tx_set_packet(mine, packet, period=period,
                                                          jitter=p.JITTER_75, latch_period=period))
            set_session(side, mine, multiplier=40, period=period, latch=(mine,))
        for side, _, _, mine in ends:
            assert side.event(p.RX_PACKET_CHANGE, mine)
            wait_until(lambda: side.stats(mine)[1].num_received >= 20, "20 packets", poll=0.1)
            assert side.event(p.SESSION_FAILURE, timeout=0.01) is None
        link.lose()
        assert far_agent.event(p.SESSION_FAILURE, 6)
        # The other end hears of it: the far end's packets say why, and keep its session alive.
        change = agent.event(p.RX_PACKET_CHANGE)
        told = Bfd.parse(p.decode(change).frame[42:])
        assert (told.state, told.diag, told.your_disc) == (bfd.DOWN, bfd.DIAG_CTRL_TIMEOUT, 0)
