# SPDX-License-Identifier: GPL-2.0
"""A program that runs beside the test and says things, a line each."""

import os
import signal
import subprocess
import tempfile

from . import PATIENCE, wait_until


class Program:
    """What it writes to its standard output and error is kept, and can be waited for."""

    def __init__(self, *command, **popen):
        self.launch(*command, **popen)

    def launch(self, *command, **popen):
        self.log_file = tempfile.TemporaryFile()
        self.process = subprocess.Popen(list(map(str, command)), stdin=subprocess.DEVNULL,
                                        stdout=self.log_file, stderr=subprocess.STDOUT, **popen)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.kill()

    def text(self, after=0):
        """All that it has said, or what is behind so many bytes."""
        return os.pread(self.log_file.fileno(), 1 << 28, after).decode(errors="replace")

    def lines(self):
        text = self.text()
        return text[:text.rfind("\n") + 1].splitlines()

    def wait_for(self, look, what):
        """Waits for a true value of look(), as long as it runs."""
        def found():
            ended = self.process.poll() is not None
            value = look()
            assert value or not ended, f"{self.process.args[0]} ended: {self.text()}"
            return value
        return wait_until(found, lambda: f"{what} from {self.process.args[0]}: {self.text()}")

    def expect(self, text, after=0):
        """Waits for a line with this text behind the first `after` lines; how many there are up
        to it."""
        def look():
            return next((number for number, line in enumerate(self.lines(), 1)
                         if number > after and text in line), None)
        return self.wait_for(look, repr(text))

    def stop(self, number=signal.SIGTERM, status=0):
        """Ends it, and expects it to end well; a sanitizer's report is an exit status."""
        self.process.send_signal(number)
        self.expect_exit(status)

    def expect_exit(self, status):
        try:
            found = self.process.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            self.kill()
            raise AssertionError(f"{self.process.args[0]} did not end: {self.text()}") from None
        assert found == status, f"exit status {found}: {self.text()}"

    def kill(self):
        self.process.kill()
        self.process.wait(PATIENCE)
