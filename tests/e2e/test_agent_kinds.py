# SPDX-License-Identifier: GPL-2.0
"""kelm-agent's other kinds of session: S-BFD, echo, LAG; for multihop see also lib/scenarios.py."""

import pytest

from lib import bfd, wait_until
from lib import protocol as p
from lib.bfd import Bfd
from lib.kelm_agent import DETECTION_US
from lib.netns import sysctl
from lib.topology import ip_batch

BOTH_ENDS_ARE_KELMS = True


def test_peers_that_never_poll_find_each_other_again(link, start):
    """Nothing but the state changes in their packets, and in the end not even that."""
    slow = {"type": "multihop", "interface": None, "min_tx": "1s", "min_rx": "1s", "multiplier": 2}
    near, far = (start(link.session(side, **slow)) for side in ("near", "far"))
    near.wait_for_change("up")
    far.wait_for_change("up")
    link.lose()
    near.wait_for_state("init")  # hears that it is not heard
    link.set_up("near")
    near.wait_for_state("up")
    far.wait_for_state("up")
    link.wire.drain()
    near.stop()
    link.wire.collect(2, lambda f: f.bfd.diag == bfd.DIAG_ADMIN_DOWN)  # one may get lost


def test_sbfd_initiator(link, start):
    agent = start(link.session(type="sbfd", interface=None, remote_discriminator=77))
    heard = []

    def wait_for(state):
        """While the far end of S-BFD answers every packet, and keeps no state (RFC 7880 section
        7.2)."""
        def is_there():
            frame = link.wire.receive(lambda f: f.dport == 7784 and f.bfd.your_disc == 77, 0.1)
            if frame:
                heard.append(frame.bfd)
                link.send(Bfd(77, frame.bfd.my_disc, bfd.UP, min_tx=1, min_rx=80_000), sport=7784,
                          dport=frame.sport)
            return agent.show()["state"] == state
        wait_until(is_there, f"state {state}")

    wait_for("up")
    assert agent.show()["timing"]["transmit_interval"] == 80_000
    assert agent.show()["timing"]["detection_time"] == 24 * 80_000
    assert (heard[0].state, heard[0].flags & bfd.DEMAND) == (bfd.DOWN, bfd.DEMAND)
    assert "detection time" in agent.wait_for_change("down")["reason"]
    wait_for("up")
    assert not any(packet.flags & bfd.POLL for packet in heard)


@pytest.fixture
def looping(link):
    """The far end sends packets back; the near end takes what comes from its own address."""
    sysctl(link.far_ns, ipv4__ip_forward=1, ipv4__conf__all__send_redirects=0)
    sysctl(link.near_ns, ipv4__conf__all__accept_local=1, ipv4__conf__all__rp_filter=0,
           **{f"ipv4__conf__{link.name}__rp_filter": 0})


def test_echo_alone(link, start, looping):
    """The neighbour knows nothing of BFD; round trips are measured."""
    agent = start(link.session(type="echo"))
    agent.wait_for_rate(DETECTION_US)
    wait_until(lambda: agent.show().get("rtt", {}).get("last"), "round-trip time")
    rtt = agent.show()["rtt"]
    assert 0 < rtt["min"] <= rtt["avg"] <= rtt["max"]
    frame = link.wire.receive(lambda f: f.dport == p.RX_PORTS[p.RX_ECHO])
    assert (frame.src, frame.dst, frame.ttl) == (link.near4, link.near4, 255)
    sysctl(link.far_ns, ipv4__ip_forward=0)
    assert agent.wait_for_change("down")["diagnostic"] == "echo function failed"
    sysctl(link.far_ns, ipv4__ip_forward=1)
    agent.wait_for_state("up")


def test_echo_guards_a_session(link, start, looping):
    near = start(link.session())
    far = start(link.session("far", min_echo_rx="30ms"))
    near.wait_for_change("up", "s")
    for interval in ("20ms", "10ms"):
        near.reload([link.session(echo={"interval": interval})])
        near.wait_for_state("up", "s/echo")
        assert near.show("s/echo")["timing"]["transmit_interval"] == 30_000
    sysctl(link.far_ns, ipv4__ip_forward=0)
    assert near.wait_for_change("down", "s")["diagnostic"] == "echo function failed"
    assert "echo function failed" in far.wait_for_change("down")["reason"]


def bridge(namespace, address, members):
    """Stands for an aggregate: members that do not forward to each other below one interface."""
    ip_batch(namespace, "\n".join([
        "link add lag0 type bridge mcast_snooping 0",
        *(f"address flush dev {member}\n"
          f"link set {member} master lag0\n"
          f"link set {member} type bridge_slave isolated on" for member in members),
        f"address add {address}/24 dev lag0",
        "link set lag0 up"]))


def test_lag_members_fail_on_their_own(namespaces, link, start):
    second = namespaces.link(link.near_ns, link.far_ns, 1)
    members = [link.name, second.name]
    addresses = {"near": "10.9.0.1", "far": "10.9.0.2"}

    def lag(side, other):
        bridge(getattr(link, f"{side}_ns"), addresses[side], members)
        return start(link.session(side, name="lag", type="lag", interface="lag0", members=members,
                                  local=addresses[side], peer=addresses[other]))

    agents = near, far = lag("near", "far"), lag("far", "near")
    for agent in agents:
        for member in members:
            agent.wait_for_rate(DETECTION_US, f"lag/{member}")
    frame = link.wire.receive(lambda f: f.dport == p.RX_PORTS[p.RX_LAG])
    assert frame.raw[:6] == bytes.fromhex("01005e900001")
    # What came before is no matter: packets without our discriminator may overtake those with it.
    before = [agent.show("lag/eth0")["changes"] for agent in agents]
    for state in ("down", "up"):
        second.set(state, "far")
        near.wait_for_state(state, "lag/eth1")
        far.wait_for_state(state, "lag/eth1")
    assert [agent.show("lag/eth0")["changes"] for agent in agents] == before
