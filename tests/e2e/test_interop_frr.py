# SPDX-License-Identifier: GPL-2.0
"""kelm-agent against FRRouting."""

import pytest

from lib.frr import Frr
from lib.interop import Bed
from lib.scenarios import TIMING, Scenarios, all_up


@pytest.fixture(scope="module")
def bed():
    bed = Bed(Frr, TIMING, links=2)
    yield bed
    bed.close()


class TestFrr(Scenarios):

    def test_the_peer_is_administratively_down(self, bed, agent, up):
        since = len(agent.log())
        for session in up:
            bed.peer.administratively_down(session, True)
        for session in up:
            change = agent.wait_for_change("down", session.name, since)
            assert "admin-down" in change["reason"]
            assert change["diagnostic"] == "neighbor signaled session down"
        for session in up:
            bed.peer.administratively_down(session, False)
        all_up(agent, bed.peer, up)
