# SPDX-License-Identifier: GPL-2.0
"""kelm-agent: two of them, at the ends of a link, over one kelm."""

import signal
import time

import pytest

from lib import bfd, wait_until
from lib import protocol as p
from lib.agent import Agent
from lib.kelm_agent import KelmAgent

BOTH_ENDS_ARE_KELMS = True

# Machines that run tests stop for tenths of a second.
FAST = {"min_tx": "50ms", "min_rx": "50ms", "multiplier": 24}
DETECTION = 1.2


def ends(link, version=4, **keys):
    """The same session from both sides."""
    near, far = link.addresses(version)
    common = {"name": "s", "interface": link.name, **FAST, **keys}
    return ({**common, "namespace": link.near_ns, "local": near, "peer": far},
            {**common, "namespace": link.far_ns, "local": far, "peer": near})


@pytest.fixture
def start(link):
    """Starts agents that end with the test."""
    running = []

    def start_one(sessions, *arguments, **options):
        running.append(KelmAgent(sessions, *arguments, **options))
        return running[-1]

    yield start_one
    for agent in running:
        agent.close()


@pytest.fixture
def pair(link, start):
    """Two agents whose session is Up."""
    near, far = (start([end]) for end in ends(link))
    both_up(near, far)
    return near, far


def both_up(*agents):
    """Up, and past the slow beginning."""
    for agent in agents:
        agent.wait_for_change("up")
        wait_until(lambda: agent.show()["timing"]["detection_time"] == DETECTION * 1e6,
                   "negotiation")


@pytest.mark.parametrize("version", [4, 6])
def test_packets_on_the_wire(link, start, version):
    near, far = (start([end]) for end in ends(link, version))
    both_up(near, far)
    frame = link.wire.receive(lambda f: f.bfd.state == bfd.UP and not f.bfd.flags & bfd.POLL)
    assert (frame.ttl, frame.dport, frame.sport >= 49152) == (255, 3784, True)
    assert (frame.bfd.min_tx, frame.bfd.min_rx, frame.bfd.multiplier) == (50_000, 50_000, 24)


def test_peers_learn_of_a_failure_while_the_agent_sleeps(link, pair):
    """kelm tells the peer; the agent catches up."""
    near, far = pair
    near.process.send_signal(signal.SIGSTOP)
    link.wire.drain()
    far.kill()
    with Agent(link.far_ns) as admin:
        (packet,) = [m.disc for m in admin.dump(p.SYNC, p.sync()) if type(m).__name__ == "TxSync"]
        admin.request(p.TX_DELETE_PACKET, packet.to_bytes(4, "little"))
    told = link.wire.receive(lambda f: f.src == link.near4 and f.bfd.state == bfd.DOWN)
    assert told.bfd.diag == bfd.DIAG_CTRL_TIMEOUT
    near.process.send_signal(signal.SIGCONT)
    assert "detection time" in near.wait_for_change("down")["reason"]


def test_restart_without_a_change(link, start):
    left, right = ends(link)
    near, far = start([left], "--keep"), start([right])
    both_up(near, far)
    before = far.changes()
    near.stop()
    time.sleep(1.5 * DETECTION)
    near.start()
    near.wait_for(lambda line: "still up" in line["message"], "'still up'")
    time.sleep(1.5 * DETECTION)
    assert near.changes() == []
    assert far.changes()[-1][1] == "up" and len(far.changes()) == len(before)


def test_show_and_history(link, pair):
    """From 'it flapped' to the cause in one command."""
    near, far = pair
    link.set("down", "far")
    near.wait_for_change("down")
    link.set("up", "far")
    near.wait_for_state("up")
    wait_until(lambda: near.show()["timing"]["detection_time"] == DETECTION * 1e6, "negotiation")
    (shown,) = near.ctl("show s")
    assert (shown["changes"]["up_count"], shown["changes"]["down_count"]) == (2, 1)
    assert shown["changes"]["last_down_diagnostic"] == "control detection time expired"
    assert "1.2s" in shown["changes"]["last_down_reason"]
    assert shown["timing"]["transmit_interval"] == 50_000
    assert shown["remote"]["discriminator"] == far.show()["discriminator"]
    assert shown["remote"]["state"] == "up"
    wait_until(lambda: near.show()["received"]["packets"] > 0, "packets at the new rate")
    history = near.ctl("history s")
    assert [h["state"] for h in history if h["previous_state"] == "up"] == ["down"]
    assert [h["state"] for h in history][-1] == "up"
    text = near.ctl("show", json_output=False)
    assert "1.2s" in text.splitlines()[1] and "up" in text.splitlines()[1]
    assert "control detection time expired" in near.ctl("show s", json_output=False)
    assert "no session 'x'" in near.ctl("show x", status=1)


def test_administratively_down(link, pair):
    near, far = pair
    near.ctl("down s")
    assert "admin-down" in far.wait_for_change("down")["reason"]
    assert near.show()["state"] == "admin-down"
    link.wire.drain()
    assert link.receive().bfd.diag == bfd.DIAG_ADMIN_DOWN
    near.kill()
    near.start()
    near.wait_for(lambda line: "still admin-down" in line["message"], "'still admin-down'")
    near.ctl("up s")
    near.wait_for_state("up")
    far.wait_for_state("up")


def test_stop_tells_the_peer(link, pair):
    near, far = pair
    near.stop()
    assert "admin-down" in far.wait_for_change("down")["reason"]
    with Agent(link.near_ns) as admin:
        assert admin.dump(p.SYNC, p.sync()) == []
    near.start()
    near.wait_for_state("up")
    far.wait_for_state("up")


def test_reload_changes_what_has_changed(link, start):
    left, right = ends(link)
    other = {**left, "name": "other", "peer": "10.0.0.77"}
    near, far = start([left, other]), start([right])
    both_up(near, far)
    before = near.show("other")
    told = near.reload([{**left, "multiplier": 30}])
    assert "reloaded" in told["message"]
    wait_until(lambda: far.show()["remote"]["multiplier"] == 30, "the new multiplier at the peer")
    assert near.show()["changes"]["down_count"] == far.show()["changes"]["down_count"] == 0
    assert before["discriminator"] and "no session" in near.ctl("show other", status=1)
    with Agent(link.near_ns) as admin:
        wait_until(lambda: before["discriminator"] not in
                   [m.disc for m in admin.dump(p.SYNC, p.sync())], "end of the removed session")


def test_a_bad_configuration_changes_nothing(link, pair):
    near, _ = pair
    bad = {**ends(link)[0], "min_tx": "fast"}
    told = near.reload([bad])
    assert told["level"] == "error" and "agent.toml:" in told["message"]
    assert "'min-tx' must be a time" in told["message"]
    assert near.show()["state"] == "up"


def test_only_one_agent(link, pair, start):
    near, _ = pair
    with pytest.raises(AssertionError, match="another kelm-agent is using"):
        start([], directory=near.directory)
