# SPDX-License-Identifier: GPL-2.0
"""kelm-agent with many sessions: the short form of bench/scale.py. It judges no times."""

import signal
import time

import pytest

from lib import wait_until
from lib.crowd import Crowd

pytestmark = pytest.mark.kelmd  # emulated processors are too slow for so many

BOTH_ENDS_ARE_KELMS = True

SESSIONS = 1000
LONG = 120.0  # on a slow machine, with sanitizers
DETECTION = 3.0


def test_all_sessions_come_back(link):
    """After a link cut, and after one while both agents were stopped."""
    crowd = Crowd(link, SESSIONS, interval_ms=300, multiplier=10)

    def wait_for_all_up(times_down):
        """Both ends of every session, each after it was down at least so many times."""
        def are_up():
            return crowd.all_up() and all(
                s["state"] == "up" and s["changes"]["down_count"] >= times_down
                for end in crowd.ends for s in end.ask("show")["sessions"])
        wait_until(are_up, lambda: f"all Up: {crowd.up()} of {2 * SESSIONS} are", LONG, poll=0.5)

    try:
        wait_for_all_up(0)
        crowd.cut()
        wait_until(lambda: crowd.up() == 0, lambda: f"all down: {crowd.up()} are Up", LONG)
        crowd.mend()
        wait_for_all_up(1)
        crowd.signal(signal.SIGSTOP)
        crowd.cut()
        time.sleep(2 * DETECTION)
        crowd.mend()
        crowd.signal(signal.SIGCONT)
        wait_for_all_up(2)
    finally:
        crowd.close()
