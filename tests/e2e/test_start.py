# SPDX-License-Identifier: GPL-2.0
"""What happens once in the life of a host: the transmit path becomes ready."""

import pytest

from lib import wait_until
from lib import protocol as p
from lib.agent import Agent
from lib.bfd import Bfd
from lib.topology import Namespaces

PERIOD = 200_000


@pytest.fixture
def namespaces(fresh_host):
    namespaces = Namespaces(fresh_host)
    yield namespaces
    namespaces.close()
    fresh_host.check()


@pytest.fixture
def near(namespaces):
    """A link, and an agent that has stored 20 packets there."""
    link = namespaces.link()
    with Agent(link.near_ns, groups=[p.CONTROL]) as agent:
        for disc in range(1, 21):
            packet = link.packet(Bfd(my_disc=disc).pack())
            agent.request(p.TX_SET_PACKET, p.tx_set_packet(disc, packet, period=PERIOD))
        yield link, agent


def expect_all_sent(link):
    """Every packet goes out, and goes on going out; at which instants, the virtual clock tells."""
    times_sent = dict.fromkeys(range(1, 21), 0)

    def all_twice():
        frame, = link.collect(1)
        times_sent[frame.bfd.my_disc] += 1
        return min(times_sent.values()) == 2

    wait_until(all_twice, lambda: f"second time of each: {times_sent}", poll=0)


def test_nothing_is_sent_before_the_agent_says_so(near):
    link, agent = near
    assert link.receive(timeout=3 * PERIOD / 1e6) is None
    with Agent() as elsewhere:  # it counts for all namespaces
        elsewhere.request(p.TX_PATH_READY, p.tx_path_ready())
    expect_all_sent(link)


@pytest.mark.parametrize("payload", [Bfd(your_disc=5).pack(), b"", b"not BFD"],
                         ids=["BFD", "empty", "junk"])
def test_the_first_datagram_says_so_too(near, payload):
    link, agent = near
    link.send(payload, dport=6784)
    expect_all_sent(link)
