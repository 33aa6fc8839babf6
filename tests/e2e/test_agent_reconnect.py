# SPDX-License-Identifier: GPL-2.0
"""kelm-agent when kelmd ends and another one begins."""

import contextlib
import signal
import time

import pytest

from lib import wait_until
from lib.host import Kelmd
from lib.kelm_agent import KelmAgent
from lib.topology import Namespaces


def end(link, side):
    near, far = link.addresses(4)
    local, peer = (near, far) if side == "near" else (far, near)
    # kelm is to be gone before a session fails in what is left of it.
    return {"name": "s", "namespace": getattr(link, f"{side}_ns"), "local": local, "peer": peer,
            "interface": link.name, "min_tx": "50ms", "min_rx": "50ms", "multiplier": 50}


@pytest.mark.kelmd
def test_kelm_begins_anew(fresh_host):
    """The sessions go down, say why, and come up again."""
    with contextlib.ExitStack() as cleanup:
        namespaces = Namespaces(fresh_host)
        cleanup.callback(namespaces.close)
        link = namespaces.link(namespaces.add(), namespaces.add())
        near, far = (KelmAgent([end(link, side)]) for side in ("near", "far"))
        for agent in (near, far):
            cleanup.callback(agent.close)
            agent.wait_for_change("up")
        fresh_host.stop()
        for agent in (near, far):
            agent.wait_for_change("down")
        again = Kelmd()
        cleanup.callback(again.close)
        for agent in (near, far):
            agent.wait_for_state("up")
            first = next(h for h in agent.ctl("history s") if h["previous_state"] == "up")
            assert (first["diagnostic"], first["reason"]) == ("forwarding plane reset", "kelm is gone")


@pytest.mark.kelmd
def test_a_stopped_kelm_holds_nobody_up(fresh_host):
    """Whoever asks the agent is answered while kelmd is not."""
    fresh_host.process.send_signal(signal.SIGSTOP)
    agent = KelmAgent([{"name": "s", "local": "127.0.0.1", "peer": "127.0.0.2"}])
    try:
        began = time.monotonic()
        assert agent.show()["problem"] == "not connected to kelm"
        assert time.monotonic() - began < 5
        fresh_host.process.send_signal(signal.SIGCONT)
        wait_until(lambda: "problem" not in agent.show(), "a connection")
    finally:
        fresh_host.process.send_signal(signal.SIGCONT)
        agent.close()
