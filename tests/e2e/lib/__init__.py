# SPDX-License-Identifier: GPL-2.0
"""What the end-to-end tests stand on: an agent, a BFD peer, namespaces and the host under test.

The agent protocol and BFD are implemented here a second time, from their documents, so that a
misunderstanding in kelm's own headers cannot hide behind itself.
"""

import time

# Long enough for a slow machine with sanitizers; nothing waits this long unless it fails.
PATIENCE = 20.0


def wait_until(condition, what, timeout=PATIENCE, poll=0.01):
    """Returns the condition's first true value; the test fails if there is none in time. `what` is
    a text, or a function that makes one then."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        assert time.monotonic() < deadline, \
            f"no {what() if callable(what) else what} within {timeout} s"
        time.sleep(poll)
