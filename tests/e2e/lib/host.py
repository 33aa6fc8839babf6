# SPDX-License-Identifier: GPL-2.0
"""The host under test: kelmd as a process, or the kernel with the module loaded."""

import os
import signal
import subprocess
import tempfile

from . import PATIENCE, wait_until
from .agent import KERNEL, Agent

BUILD = os.environ.get("KELM_BUILD", "build")
KELMD = os.path.join(BUILD, "bin", "kelmd")
KELMCTL = os.path.join(BUILD, "bin", "kelmctl")


class Kelmd:
    """One kelmd process and its log."""

    def __init__(self, *arguments, ready=True, **popen):
        self.log_file = tempfile.TemporaryFile("w+")
        self.process = subprocess.Popen([KELMD, *arguments], stdin=subprocess.DEVNULL,
                                        stderr=self.log_file, **popen)
        if ready:
            self.wait_ready()

    def wait_ready(self):
        def is_ready():
            assert self.process.poll() is None, f"kelmd ended at once: {self.log()}"
            return "kelmd: ready" in self.log()
        wait_until(is_ready, "'kelmd: ready'")

    def wait_for_vrf(self, namespace):
        def answers():
            assert self.process.poll() is None, f"kelmd ended: {self.log()}"
            try:
                with Agent(namespace):
                    return True
            except ConnectionRefusedError:
                return False
        wait_until(answers, f"kelmd in namespace {namespace}")

    def log(self):
        return os.pread(self.log_file.fileno(), 1 << 24, 0).decode(errors="replace")

    def stop(self, signal=signal.SIGTERM):
        """Ends kelmd, and expects it to end well; a sanitizer's report is an exit status."""
        self.process.send_signal(signal)
        self.expect_exit(0)

    def kill(self):
        self.process.kill()
        self.process.wait(PATIENCE)

    def expect_exit(self, status):
        try:
            found = self.process.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            self.kill()
            raise AssertionError(f"kelmd did not end: {self.log()}") from None
        assert found == status, f"exit status {found}: {self.log()}"

    def check(self):
        """After every test: kelmd runs, and has found nothing wrong with itself."""
        assert self.process.poll() is None, f"kelmd ended: {self.log()}"
        for alarm in ("WARNING:", "ERROR:", "Found Vrf", "refcount"):
            assert alarm not in self.log(), self.log()

    def close(self):
        if self.process.poll() is None:
            self.stop()


class Module:
    """The kernel module, loaded by whoever runs the tests; restarting is a forced reload."""

    PATH = os.environ.get("KELM_MODULE", "kelm.ko")

    def __init__(self):
        if not self.loaded():
            self.load()

    @staticmethod
    def loaded():
        return os.path.isdir("/sys/module/kelm")

    def load(self, path=PATH, **parameters):
        subprocess.run(["insmod", path, *(f"{k}={v}" for k, v in parameters.items())], check=True)

    def unload(self):
        subprocess.run(["rmmod", "-f", "kelm"], check=True)

    def wait_for_vrf(self, namespace):
        with Agent(namespace):
            pass

    def check(self):
        assert self.loaded()

    def close(self):
        """The log is searched by whoever loaded the module first."""
        self.unload()


Host = Module if KERNEL else Kelmd


def serving(namespace):
    """A host that serves this namespace, and none where another BFD speaker runs already."""
    return Module() if KERNEL else Kelmd("--netns", namespace)
