# SPDX-License-Identifier: GPL-2.0
"""kelm-agent: two of them, at the ends of a link, over one kelm. How their sessions go up and down is
in lib/scenarios.py."""

import json
import signal
import time

import pytest

from lib import bfd, wait_until
from lib import protocol as p
from lib.agent import Agent, discriminators
from lib.host import KELMCTL
from lib.kelm_agent import DETECTION, DETECTION_US
from lib.program import Program

BOTH_ENDS_ARE_KELMS = True


@pytest.fixture
def pair(link, start):
    """Two agents whose session is Up."""
    near, far = (start(link.session(side)) for side in ("near", "far"))
    for agent in (near, far):
        agent.wait_for_rate(DETECTION_US)
    return near, far


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
    assert (told.bfd.diag, told.sport >= 49152) == (bfd.DIAG_CTRL_TIMEOUT, True)
    near.process.send_signal(signal.SIGCONT)
    assert "detection time" in near.wait_for_change("down")["reason"]


def test_an_end_that_keeps_the_sessions(pair):
    near, far = pair
    near.restart("--keep")
    near.stop()
    time.sleep(1.5 * DETECTION)
    near.start()
    near.wait_for_line("still up")
    time.sleep(1.5 * DETECTION)
    assert near.changes() == []
    assert [change for change in far.changes() if change[0] == "up"] == []


def test_show_and_history(link, pair):
    """From 'it flapped' to the cause in one command."""
    near, far = pair
    link.set("down", "far")
    near.wait_for_change("down")
    link.set("up", "far")
    near.wait_for_rate(DETECTION_US)
    near.wait_for(lambda: near.show()["received"]["packets"] > 0, "packets at the new rate")
    (shown,) = near.ctl("show s")
    assert (shown["changes"]["up_count"], shown["changes"]["down_count"]) == (2, 1)
    assert shown["changes"]["last_down_diagnostic"] == "control detection time expired"
    assert "1.2s" in shown["changes"]["last_down_reason"]
    assert shown["timing"]["transmit_interval"] == 50_000
    assert shown["remote"]["discriminator"] == far.show()["discriminator"]
    assert shown["remote"]["state"] == "up"
    history = near.ctl("history s")
    assert [h["state"] for h in history if h["previous_state"] == "up"] == ["down"]
    assert history[-1]["state"] == "up"
    line = near.ctl("show", json_output=False).splitlines()[1]
    assert "1.2s" in line and "up" in line
    assert "control detection time expired" in near.ctl("show s", json_output=False)
    assert "no session 'x'" in near.ctl("show x", status=1)


def test_ends_that_the_peer_is_told_of(link, pair):
    near, far = pair
    near.ctl("down s")
    assert "admin-down" in far.wait_for_change("down")["reason"]
    near.restart()
    near.wait_for_line("still admin-down")
    near.ctl("up s")
    for agent in pair:
        agent.wait_for_state("up")
    since = len(far.log())
    near.stop()
    assert "admin-down" in far.wait_for_change("down", since=since)["reason"]
    with Agent(link.near_ns) as admin:
        assert admin.dump(p.SYNC, p.sync()) == []


def test_reload(link, pair):
    """What has changed is changed; what is wrong changes nothing."""
    near, far = pair
    other = link.session(name="other", peer="10.0.0.77")
    assert "reloaded" in near.reload([link.session(), other])["message"]
    removed = near.show("other")["discriminator"]
    assert removed
    assert "reloaded" in near.reload([link.session(multiplier=30)])["message"]
    wait_until(lambda: far.show()["remote"]["multiplier"] == 30, "the new multiplier at the peer")
    assert near.show()["changes"]["down_count"] == far.show()["changes"]["down_count"] == 0
    assert "no session" in near.ctl("show other", status=1)
    wait_until(lambda: removed not in discriminators(link.near_ns), "end of the removed session")
    told = near.reload([link.session(min_tx="fast")])
    assert told["level"] == "error" and "agent.toml:" in told["message"]
    assert "'min-tx' must be a time" in told["message"]
    assert near.show()["state"] == "up"


def test_programs_hear_of_changes(link, pair):
    """Those that subscribe, and the one that a session names."""
    near, far = pair
    program = near.directory / "changed"
    program.write_text("""#!/bin/sh
        echo "$1 is $2, was $KELM_PREVIOUS_STATE: $KELM_REASON"; exit 3""")
    program.chmod(0o755)
    near.configure([link.session(on_change=str(program))])
    assert near.ctl("reload", json_output=False) == "configuration reloaded\n"
    with Program(KELMCTL, "-j", "agent", "monitor", "socket", near.socket) as monitor:
        monitor.expect('"event":"state"')
        far.ctl("down s")
        near.wait_for_line("s is down, was up: peer signaled admin-down")
        near.wait_for_line("failed with status 3")
        monitor.expect('"event":"change"')
        state, change = map(json.loads, monitor.lines())
        assert (state["state"], state["peer"]) == ("up", link.far4)
        assert (change["state"], change["previous_state"]) == ("down", "up")
        assert near.ctl("show state up") == near.ctl("show peer 10.0.0.99") == []
        assert "'uP' is not one of" in near.ctl("show state uP", status=2)
        assert "1 session: 1 down" in near.ctl("show state down", json_output=False)
        near.configure([link.session(min_tx="fast")])
        assert "'min-tx' must be a time" in near.ctl("reload", status=1)
        near.configure([])
        near.ctl("reload", json_output=False)
        monitor.expect('"reason":"removed"')


def test_only_one_agent(pair, start):
    with pytest.raises(AssertionError, match="another kelm-agent is using"):
        start(directory=pair[0].directory)
