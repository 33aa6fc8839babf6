# SPDX-License-Identifier: GPL-2.0
"""A program that runs beside the test and says things, a line each."""

import os
import select
import signal
import subprocess
import time

from . import PATIENCE


class Program:
    """What it writes to its standard output and error is kept, and can be waited for."""

    def __init__(self, *command, **popen):
        self.lines = []
        self._rest = b""
        self.process = subprocess.Popen(list(map(str, command)), stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **popen)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait(PATIENCE)
        self.process.stdout.close()

    def read(self, timeout=0):
        """Takes in what it has said. False at its end, or when the time is over."""
        if not select.select([self.process.stdout], [], [], timeout)[0]:
            return False
        data = os.read(self.process.stdout.fileno(), 1 << 16)
        *complete, self._rest = (self._rest + data).split(b"\n")
        self.lines += [line.decode() for line in complete]
        return bool(data)

    def expect(self, text, after=0):
        """Waits for a line with this text behind the first `after` lines; how many there are up
        to it."""
        deadline = time.monotonic() + PATIENCE
        while True:
            for number, line in enumerate(self.lines[after:], after + 1):
                if text in line:
                    return number
            assert self.read(max(0, deadline - time.monotonic())), \
                f"{self.process.args[0]} never said {text!r}: {self.lines}"

    def stop(self, number=signal.SIGTERM, status=0):
        self.process.send_signal(number)
        assert self.process.wait(PATIENCE) == status, self.lines
        while self.read():
            pass
