# SPDX-License-Identifier: GPL-2.0
"""What has to work with every peer, on all kinds of session at once."""

import contextlib
import os
import signal
import subprocess
import time

import pytest

from . import wait_until
from .interop import Session, Timing
from .kelm_agent import KelmAgent

# Machines that run tests stop for tenths of a second.
TIMING = Timing(200, 200, 10)
DETECTION = 2.0


def shown(agent, sessions):
    """The sessions as the agent has them, all at one time."""
    by_name = {session["session"]: session for session in agent.ask("show")["sessions"]}
    return [by_name[session.name] for session in sessions]


def all_up(agent, peer, sessions):
    wait_until(lambda: all(s["state"] == "up" for s in shown(agent, sessions)),
               lambda: f"state up; the agent said: {agent.text()}", poll=0.1)
    peer.wait_for(sessions, "up")


@contextlib.contextmanager
def busy():
    """All processors have more to do than they can."""
    loops = [subprocess.Popen(["sh", "-c", "while :; do :; done"])
             for _ in range(2 * os.cpu_count())]
    try:
        yield
    finally:
        for loop in loops:
            loop.kill()
            loop.wait()


@pytest.mark.stalls_below(DETECTION / 2)
class Scenarios:
    """For a class of tests, beside a fixture `bed`."""

    @pytest.fixture(autouse=True)
    def nothing_left_behind(self):
        """The namespaces stay for all tests."""

    @pytest.fixture(scope="class")
    def sessions(self, bed):
        """Packets of the two kinds take links of their own."""
        return [Session(f"{'multihop' if multihop else 'single-hop'}-{version}",
                        bed.links[multihop], version, multihop)
                for multihop in (False, True) for version in (4, 6)]

    @pytest.fixture(scope="class")
    def agent(self, bed, sessions):
        bed.peer.configure(sessions, TIMING)
        agent = KelmAgent([s.configuration() for s in sessions], **TIMING.keys())
        yield agent
        agent.close()

    @pytest.fixture
    def up(self, bed, agent, sessions):
        """All sessions are Up before the test."""
        all_up(agent, bed.peer, sessions)
        return sessions

    @pytest.fixture
    def unchanged(self, bed, agent, up):
        """All sessions are Up after the test, and were all along."""
        def states():
            return [(session.state, session.changes) for session in bed.peer.seen(up)]
        before, lines = states(), len(agent.changes())
        yield
        assert states() == before, bed.peer.log()
        assert {session["state"] for session in shown(agent, up)} == {"up"}
        assert agent.changes()[lines:] == []

    def test_a_stopped_agent_is_not_missed(self, agent, unchanged):
        with busy():
            agent.process.send_signal(signal.SIGSTOP)
            time.sleep(5 * DETECTION)
            agent.process.send_signal(signal.SIGCONT)

    def test_the_agent_is_killed(self, agent, sessions, unchanged):
        agent.kill()
        time.sleep(1.5 * DETECTION)
        agent.start()
        agent.wait_for_line(f"{len(sessions)} still up")
        time.sleep(1.5 * DETECTION)
        assert agent.changes() == []

    def test_intervals_follow_both_ends(self, bed, agent, sessions, unchanged):
        """Each time one end is configured anew, while the session is Up."""
        def expect(ours, peers):
            sent, heard = max(ours.min_tx, peers.min_rx), max(peers.min_tx, ours.min_rx)
            def at_the_agent():
                return {(s["timing"]["transmit_interval"], s["timing"]["detection_time"])
                        for s in shown(agent, sessions)}
            def at_the_peer():
                return {(s.transmit, s.detection) for s in bed.peer.seen(sessions)}
            wait_until(lambda: at_the_agent() == {(sent * 1000, heard * peers.multiplier * 1000)},
                       f"{ours}, {peers} at the agent", poll=0.1)
            wait_until(lambda: at_the_peer() == {(heard, sent * ours.multiplier)},
                       f"{ours}, {peers} at the peer", poll=0.1)

        ours = peers = TIMING
        expect(ours, peers)
        for ours, peers in ((ours, Timing(300, 350, 8)), (Timing(250, 400, 7), Timing(300, 350, 8)),
                            (Timing(250, 400, 7), Timing(500, 220, 8)), (TIMING, TIMING)):
            bed.peer.configure(timing=peers)
            agent.defaults = ours.keys()
            agent.reload([session.configuration() for session in sessions])
            expect(ours, peers)

    def test_the_agent_is_administratively_down(self, bed, agent, up):
        names = [session.name for session in up]
        agent.ask("down", names)
        bed.peer.wait_for(up, "down")
        assert {session["state"] for session in shown(agent, up)} == {"admin-down"}
        agent.ask("up", names)
        all_up(agent, bed.peer, up)

    @pytest.mark.parametrize("lost", ["near", "far", "both"])
    def test_packets_are_lost(self, bed, agent, up, lost):
        """Who does not hear the other any more says so, in the direction that is left."""
        since = len(agent.log())
        before = bed.peer.seen(up)
        for session in up:
            if lost == "both":
                session.link.set("down", "far")
            else:
                session.link.lose(session.version, lost)
        for session in up:
            change = agent.wait_for_change("down", session.name, since)
            assert change["reason"].startswith(
                "peer signaled down (control detection time expired)" if lost == "near" else
                "no packet within the detection time")
        # There may be no sessions at the peer while a link is down.
        wait_until(lambda: lost == "both" or all(
            now.changes != earlier.changes for now, earlier in zip(bed.peer.seen(up), before)),
            lambda: f"change at the peer; it said: {bed.peer.log()}", poll=0.1)
        for link in bed.links[:2]:
            bed.restore(link)
        all_up(agent, bed.peer, up)

    def test_the_peer_is_killed(self, bed, agent, up):
        since = len(agent.log())
        bed.peer.kill()
        for session in up:
            assert "detection time" in agent.wait_for_change("down", session.name, since)["reason"]
        bed.peer.start()
        all_up(agent, bed.peer, up)
