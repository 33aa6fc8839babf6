# SPDX-License-Identifier: GPL-2.0
"""kelm-agent's other kinds of session: multihop, S-BFD, echo, LAG."""

import threading

import pytest

from lib import bfd, wait_until
from lib import protocol as p
from lib.bfd import Bfd
from lib.kelm_agent import KelmAgent
from lib.netns import in_namespace
from lib.topology import ip

BOTH_ENDS_ARE_KELMS = True


@pytest.fixture
def start(link):
    running = []

    def start_one(*sessions):
        # Machines that run tests stop for tenths of a second.
        running.append(KelmAgent(sessions, min_tx="50ms", min_rx="50ms", multiplier=20))
        return running[-1]

    yield start_one
    for agent in running:
        agent.close()


def end(link, side="near", version=4, **keys):
    near, far = link.addresses(version)
    local, peer = (near, far) if side == "near" else (far, near)
    return {"name": "s", "namespace": getattr(link, f"{side}_ns"), "local": local, "peer": peer,
            **keys}


def sysctl(namespace, **settings):
    """Names are given with '_' for '/' after the interface's."""
    with in_namespace(namespace):
        for name, value in settings.items():
            with open("/proc/sys/net/ipv4/" + name.replace("__", "/"), "w") as file:
                file.write(str(value))


@pytest.mark.parametrize("version", [4, 6])
def test_multihop(link, start, version):
    near, far = (start(end(link, side, version, type="multihop")) for side in ("near", "far"))
    near.wait_for_change("up")
    far.wait_for_change("up")
    frame = link.wire.receive(lambda f: f.bfd.state == bfd.UP)
    assert frame.dport == p.RX_PORTS[p.RX_MULTIHOP]
    link.lose(version)
    assert "detection time" in far.wait_for_change("down")["reason"]


def test_peers_that_never_poll_find_each_other_again(link, start):
    """Nothing but the state changes in their packets, and in the end not even that."""
    slow = {"type": "multihop", "min_tx": "1s", "min_rx": "1s", "multiplier": 2}
    near, far = (start(end(link, side, **slow)) for side in ("near", "far"))
    near.wait_for_change("up")
    far.wait_for_change("up")
    link.lose()
    near.wait_for_state("init")  # hears that it is not heard
    ip("-n", link.near_ns, "neigh", "del", link.far4, "dev", link.name)
    near.wait_for_state("up")
    far.wait_for_state("up")
    link.wire.drain()
    near.stop()
    link.wire.collect(2, lambda f: f.bfd.diag == bfd.DIAG_ADMIN_DOWN)  # one may get lost


class Reflector:
    """The far end of S-BFD (RFC 7880 section 7.2): answers every packet, and keeps no state."""

    def __init__(self, link, discriminator, min_rx):
        self.link, self.discriminator, self.min_rx = link, discriminator, min_rx
        self.heard, self.state, self.ended = [], bfd.UP, False
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def run(self):
        while not self.ended:
            frame = self.link.wire.receive(lambda f: f.dport == 7784, 0.1)
            state = self.state
            if frame is None or frame.bfd.your_disc != self.discriminator or not state:
                continue
            self.heard.append(frame)
            self.link.send(Bfd(self.discriminator, frame.bfd.my_disc, state,
                               min_tx=1, min_rx=self.min_rx), sport=7784, dport=frame.sport)

    def close(self):
        self.ended = True
        self.thread.join()


def test_sbfd_initiator(link, start):
    reflector = Reflector(link, discriminator=77, min_rx=80_000)
    try:
        agent = start(end(link, type="sbfd", remote_discriminator=77))
        agent.wait_for_change("up")
        assert agent.show()["timing"]["transmit_interval"] == 80_000
        assert agent.show()["timing"]["detection_time"] == 1_600_000
        first = reflector.heard[0].bfd
        assert (first.state, first.flags & bfd.DEMAND) == (bfd.DOWN, bfd.DEMAND)
        assert not any(frame.bfd.flags & bfd.POLL for frame in reflector.heard)
        reflector.state = None
        assert "detection time" in agent.wait_for_change("down")["reason"]
        reflector.state = bfd.UP
        agent.wait_for_state("up")
    finally:
        reflector.close()


@pytest.fixture
def looping(link):
    """The far end sends packets back; the near end takes what comes from its own address."""
    sysctl(link.far_ns, ip_forward=1, conf__all__send_redirects=0)
    sysctl(link.near_ns, conf__all__accept_local=1, conf__all__rp_filter=0)
    sysctl(link.near_ns, **{f"conf__{link.name}__rp_filter": 0})


def test_echo_alone(link, start, looping):
    """The neighbour knows nothing of BFD; round trips are measured."""
    agent = start(end(link, type="echo", interface=link.name))
    agent.wait_for_change("up")
    wait_until(lambda: agent.show().get("rtt", {}).get("last"), "round-trip time")
    rtt = agent.show()["rtt"]
    assert 0 < rtt["min"] <= rtt["avg"] <= rtt["max"]
    assert agent.show()["timing"]["detection_time"] == 1_000_000
    frame = link.wire.receive(lambda f: f.dport == p.RX_PORTS[p.RX_ECHO])
    assert (frame.src, frame.dst, frame.ttl) == (link.near4, link.near4, 255)
    sysctl(link.far_ns, ip_forward=0)
    down = agent.wait_for_change("down")
    assert down["diagnostic"] == "echo function failed"
    sysctl(link.far_ns, ip_forward=1)
    agent.wait_for_state("up")


def test_echo_guards_a_session(link, start, looping):
    near = start(end(link, interface=link.name))
    far = start(end(link, "far", interface=link.name, min_echo_rx="30ms"))
    near.wait_for_change("up", "s")
    for interval in ("20ms", "10ms"):
        near.reload([end(link, interface=link.name, echo={"interval": interval})])
        near.wait_for_state("up", "s/echo")
        assert near.show("s/echo")["timing"]["transmit_interval"] == 30_000
    sysctl(link.far_ns, ip_forward=0)
    assert near.wait_for_change("down", "s")["diagnostic"] == "echo function failed"
    assert "echo function failed" in far.wait_for_change("down")["reason"]


def bridge(namespace, address, members):
    """Stands for an aggregate: members that do not forward to each other below one interface."""
    ip("-n", namespace, "link", "add", "lag0", "type", "bridge", "mcast_snooping", "0")
    for member in members:
        ip("-n", namespace, "address", "flush", "dev", member)
        ip("-n", namespace, "link", "set", member, "master", "lag0")
        ip("-n", namespace, "link", "set", member, "type", "bridge_slave", "isolated", "on")
    ip("-n", namespace, "address", "add", f"{address}/24", "dev", "lag0")
    ip("-n", namespace, "link", "set", "lag0", "up")


def test_lag_members_fail_on_their_own(namespaces, link, start):
    second = namespaces.link(link.near_ns, link.far_ns, 1)
    members = [link.name, second.name]
    addresses = {"near": "10.9.0.1", "far": "10.9.0.2"}
    for side in ("near", "far"):
        bridge(getattr(link, f"{side}_ns"), addresses[side], members)

    def lag(side, other):
        return {"name": "lag", "type": "lag", "namespace": getattr(link, f"{side}_ns"),
                "local": addresses[side], "peer": addresses[other], "interface": "lag0",
                "members": members}

    near, far = start(lag("near", "far")), start(lag("far", "near"))
    for agent in (near, far):
        for member in members:
            agent.wait_for_state("up", f"lag/{member}")
            wait_until(lambda: agent.show(f"lag/{member}")["timing"]["detection_time"] == 1_000_000,
                       "negotiation")
    frame = link.wire.receive(lambda f: f.dport == p.RX_PORTS[p.RX_LAG])
    assert frame.raw[:6] == bytes.fromhex("01005e900001")
    # What came before is no matter: packets without our discriminator may overtake those with it.
    before = near.show("lag/eth0")["changes"], far.show("lag/eth0")["changes"]
    second.set("down", "far")
    near.wait_for_state("down", "lag/eth1")
    far.wait_for_state("down", "lag/eth1")
    second.set("up", "far")
    near.wait_for_state("up", "lag/eth1")
    assert (near.show("lag/eth0")["changes"], far.show("lag/eth0")["changes"]) == before
