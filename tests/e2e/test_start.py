# SPDX-License-Identifier: GPL-2.0
"""What happens once in the life of a host: the transmit path becomes ready."""

import contextlib

import pytest

from lib import wait_until
from lib import protocol as p
from lib.agent import Agent
from lib.bfd import Bfd
from lib.topology import Namespaces

PERIOD = 200_000


@pytest.mark.parametrize("payload", [None, Bfd(your_disc=5).pack(), b"", b"not BFD"],
                         ids=["agent", "BFD", "empty", "junk"])
def test_nothing_is_sent_before_an_agent_or_the_first_datagram_says_so(fresh_host, payload):
    """After it each of 20 packets goes out, and again; at which instants, the virtual clock tells."""
    times_sent = dict.fromkeys(range(1, 21), 0)
    with contextlib.closing(Namespaces(fresh_host)) as namespaces:
        link = namespaces.link()
        with Agent(link.near_ns) as agent:
            for disc in times_sent:
                packet = link.packet(Bfd(my_disc=disc).pack())
                agent.request(p.TX_SET_PACKET, p.tx_set_packet(disc, packet, period=PERIOD))
        assert link.receive(timeout=2 * PERIOD / 1e6) is None
        if payload is None:
            with Agent() as elsewhere:  # it counts for all namespaces
                elsewhere.request(p.TX_PATH_READY, p.tx_path_ready())
        else:
            link.send(payload, dport=6784)

        def all_twice():
            frame, = link.collect(1)
            times_sent[frame.bfd.my_disc] += 1
            return min(times_sent.values()) == 2

        wait_until(all_twice, lambda: f"second time of each: {times_sent}", poll=0)
    fresh_host.check()
