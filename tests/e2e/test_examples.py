# SPDX-License-Identifier: GPL-2.0
"""The examples do what the tutorial says of them: a session between two of the small agents."""

import os
import signal

from lib import bfd, wait_until
from lib import protocol as p
from lib.agent import Agent
from lib.bfd import Bfd
from lib.host import BUILD
from lib.program import Program

EXAMPLES = os.path.join(BUILD, "bin", "examples")


def agent(namespace, *arguments):
    return Program("ip", "netns", "exec", namespace, os.path.join(EXAMPLES, "agent"), *arguments)


def remembers_state(kelm, state):
    """Whether the packet that kelm keeps for the next agent says this."""
    return any(isinstance(entry, p.PacketChange) and bfd.parse_frame(entry.frame).bfd.state == state
               for entry in kelm.dump(p.SYNC, p.sync()))


def test_a_session_through_its_life(namespaces):
    link = namespaces.link(namespaces.add(), namespaces.add())
    near, far = link.addresses(4)
    near_agent = (link.near_ns, near, far, 5, 500)
    with Program(os.path.join(EXAMPLES, "watch"), link.near_ns) as watch, \
            agent(link.far_ns, far, near, 6, 500) as peer:
        with agent(*near_agent) as first:
            first.expect("up, diagnostic no-diagnostic")
            peer.expect("up, diagnostic no-diagnostic")
            watch.expect(f"session 5: {far} says up")
            with Agent(link.near_ns) as kelm:
                wait_until(lambda: remembers_state(kelm, bfd.UP), "the peer's state in kelm")
            first.stop(signal.SIGKILL, -signal.SIGKILL)
        heard = len(peer.lines())
        with Agent(link.near_ns) as kelm, agent(*near_agent) as second:
            second.expect("up")
            assert second.lines() == [f"{far}: up, diagnostic no-diagnostic"]
            assert len(peer.lines()) == heard, "the peer noticed the restart"
            sent, received = kelm.stats(5)
            assert (sent.num_latches, received.num_timeout) == (0, 0)

            link.set("down", side="far")
            lost = second.expect("down, diagnostic control-detection-time-expired")
            watch.expect("session 5: failed")
            link.set("up", side="far")
            second.expect("up", after=lost)
            heard = peer.expect("up", after=heard)

            second.stop()
            peer.expect("down, diagnostic neighbor-signaled-session-down", after=heard)
            wait_until(lambda: kelm.dump(p.SYNC, p.sync()) == [], "kelm without the session")
        peer.stop()


def test_a_peer_that_has_lost_us_comes_back_with_what_it_said_before(link):
    lost = Bfd(9, 0, bfd.DOWN, multiplier=200, min_tx=1_000_000, min_rx=1_000_000)
    back = lost.but(your_disc=5, state=bfd.INIT)
    near_agent = (link.near_ns, link.near4, link.far4, 5, 1000)
    with agent(*near_agent) as first:
        link.receive()
        for said, answer in ((lost, bfd.INIT), (back, bfd.UP), (lost, bfd.DOWN), (back, bfd.UP),
                             (lost, bfd.DOWN), (lost, bfd.INIT), (back, bfd.UP), (lost, bfd.DOWN)):
            link.wire.drain()
            link.send(said)
            assert link.wire.receive(lambda f, answer=answer: f.bfd.state == answer), said
        first.stop(signal.SIGKILL, -signal.SIGKILL)
    link.send(back)  # heard by kelm alone
    with agent(*near_agent) as second:
        wait_until(lambda: link.send(back) and second.lines(), "news of the peer")
        second.expect("up, diagnostic no-diagnostic")
        link.wire.drain()
        second.stop()
    link.wire.collect(2, lambda f: f.bfd.state == bfd.ADMIN_DOWN)  # one may get lost
