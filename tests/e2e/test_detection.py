# SPDX-License-Identifier: GPL-2.0
"""Detection in real time: never early, once, with the agent's own bytes. That it spares those whose
packets come, however busy the machine is, bench/soak.py tells."""

import struct
import time

from lib import protocol as p

TICK = 0.010  # detection counts whole ticks, the first of which may be almost over


def set_session(agent, disc=5, **options):
    options.setdefault("failure", p.failure_message(disc))
    agent.request(p.RX_SET_SESSION, p.rx_set_session(disc, flags=p.TIMER_ACTIVE, **options))


def test_a_silent_session_fails_once_and_not_early(agent):
    started = time.monotonic()
    set_session(agent, multiplier=3, period=100_000)
    failure = agent.event()
    elapsed = time.monotonic() - started
    assert failure.type == p.SESSION_FAILURE and failure.body == p.failure_message(5)[16:]
    assert elapsed >= 0.300 - TICK
    # Nothing more of it, nor of sessions that are deleted or stopped in time.
    for disc in (6, 7):
        set_session(agent, disc, multiplier=1, period=2_000_000)
    agent.request(p.RX_DELETE_SESSION, struct.pack("=I", 6))
    agent.request(p.RX_SET_SESSION, p.rx_set_session(7, failure=p.failure_message(7)))
    set_session(agent, 8, multiplier=1, period=2_100_000)
    assert agent.event().body == p.failure_message(8)[16:]
    assert agent.stats(5)[0].num_timeout == 1
