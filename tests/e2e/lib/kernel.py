# SPDX-License-Identifier: GPL-2.0
"""The kernel as host: its log, and what a module has or leaves behind in it."""

import contextlib
import glob
import os
import re
import sys

from . import protocol
from .agent import UNIT
from .netns import in_namespace

sys.path.append(os.path.join(os.path.dirname(__file__), "../../vm"))
import kernel_log  # noqa: E402  (tests/vm/kernel_log.py)

# What belongs to a vrf that has no sessions: sockets, as sockets() has them, and allocations for
# itself, its receive sockets and its transmit sockets.
OF_A_VRF = sorted(["netlink", "packet", "raw", "raw6",
                   *(f"udp6:{port}" for port in protocol.RX_PORTS.values())])
ALLOCATIONS_OF_A_VRF = 1 + len(protocol.RX_PORTS) + 2

# Such a kernel keeps what was freed for a while, and says itself what has leaked: nothing is counted.
KMEMLEAK = os.path.exists("/sys/kernel/debug/kmemleak")


class KernelLog:
    """The kernel's log from now on."""

    def __init__(self):
        self._kmsg = os.open("/dev/kmsg", os.O_RDONLY | os.O_NONBLOCK)
        os.lseek(self._kmsg, 0, os.SEEK_END)
        self._lines = []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        os.close(self._kmsg)

    def text(self):
        with contextlib.suppress(BlockingIOError):
            while True:
                record = os.read(self._kmsg, 1 << 13).decode(errors="replace")
                self._lines.append(record.split(";", 1)[1].split("\n")[0])
        return "\n".join(self._lines)

    def check(self):
        """There are no reports of faults, but for the warnings of a forced unload."""
        lines = self.text().splitlines()
        reports, _ = kernel_log.search("\n".join(lines))
        assert not reports, "\n".join(lines[reports[0]:reports[0] + kernel_log.CONTEXT])


def _table(namespace, name):
    with in_namespace(namespace), open(f"/proc/thread-self/net/{name}") as table:
        return [line.split() for line in table.readlines()[1:]]


def sockets(namespace=None):
    """kelm's sockets in a namespace, as far as they can be told from others'."""
    found = ["netlink" for line in _table(namespace, "netlink")
             if (line[1], line[2]) == (str(UNIT), "0")]
    found += ["packet" for line in _table(namespace, "packet") if line[3] == "0000"]
    for family in ("raw", "raw6"):
        found += [family for line in _table(namespace, family) if line[1].endswith(":00FF")]
    ports = [int(line[1].split(":")[1], 16) for line in _table(namespace, "udp6")]
    found += [f"udp6:{port}" for port in ports if port in protocol.RX_PORTS.values()]
    return sorted(found)


def threads():
    """How many of kelm's threads run."""
    count = 0
    for file in glob.glob("/proc/[0-9]*/comm"):
        with contextlib.suppress(FileNotFoundError, ProcessLookupError), open(file) as comm:
            count += comm.read().startswith("kelm_")
    return count


def _allocations(caller):
    """How many pieces of memory there are that such a caller has allocated."""
    if KMEMLEAK:
        return None
    caches = glob.glob("/sys/kernel/debug/slab/kmalloc-[0-9]*/alloc_traces")
    assert caches, "the kernel does not record allocations; boot it with slub_debug=U"
    count = 0
    for cache in caches:
        with open(cache) as traces:
            found = re.findall(rf"^ *(\d+) {caller}", traces.read(), re.MULTILINE)
        count += sum(map(int, found))
    return count


def allocations():
    """How many pieces of memory the module has."""
    return _allocations(r"\S+ \[kelm\]")


def leaks():
    """How many are left of code that is not there any more, and so has no name."""
    return _allocations("0x")


def only_empty_vrfs(number):
    """Whether the module has no more memory than these need."""
    return KMEMLEAK or allocations() == number * ALLOCATIONS_OF_A_VRF
