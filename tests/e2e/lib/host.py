# SPDX-License-Identifier: GPL-2.0
"""The host under test: kelmd as a process, or the kernel with the module loaded."""

import os
import subprocess

from .agent import KERNEL, Agent
from .program import Program

BUILD = os.environ.get("KELM_BUILD", "build")
KELMD = os.path.join(BUILD, "bin", "kelmd")
KELMCTL = os.path.join(BUILD, "bin", "kelmctl")


class Kelmd(Program):
    """One kelmd process and its log."""

    log = Program.text

    def __init__(self, *arguments, ready=True, **popen):
        super().__init__(KELMD, *arguments, **popen)
        if ready:
            self.expect("kelmd: ready")

    def start(self):
        """Another one in its place."""
        self.launch(KELMD)
        self.expect("kelmd: ready")

    def wait_for_vrf(self, namespace):
        def answers():
            try:
                with Agent(namespace):
                    return True
            except ConnectionRefusedError:
                return False
        self.wait_for(answers, f"answer in namespace {namespace}")

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
