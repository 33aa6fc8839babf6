# SPDX-License-Identifier: GPL-2.0
"""kelm-agent on kelm at one end, another BFD speaker at the other."""

import abc
import contextlib
import dataclasses
import os
import pathlib
import tempfile

from . import wait_until
from .host import serving
from .netns import in_namespace
from .program import Program
from .topology import Link, Namespaces


@dataclasses.dataclass(frozen=True)
class Timing:
    """Intervals in milliseconds."""

    min_tx: int
    min_rx: int
    multiplier: int

    def keys(self):
        """As kelm-agent's configuration has them."""
        return {"min_tx": f"{self.min_tx}ms", "min_rx": f"{self.min_rx}ms",
                "multiplier": self.multiplier}


@dataclasses.dataclass(frozen=True)
class Auth:
    """Authentication with secrets by key id; the peer sends with the one of them that it likes."""

    type: str  # as the peer calls it
    keys: dict


@dataclasses.dataclass(frozen=True)
class Session:
    """Both ends of it; kelm's is the near one."""

    name: str
    link: Link
    version: int = 4
    multihop: bool = False

    @property
    def near(self):
        return self.link.addresses(self.version)[0]

    @property
    def far(self):
        return self.link.addresses(self.version)[1]

    def configuration(self, **keys):
        """kelm-agent's end."""
        kind = {"type": "multihop", "interface": None} if self.multihop else {}
        return self.link.session(version=self.version, name=self.name, **kind, **keys)


@dataclasses.dataclass(frozen=True)
class Seen:
    """A session as the peer has it; intervals in milliseconds."""

    state: str
    changes: object  # another value after each change of the state
    transmit: int
    detection: int


class Peer(abc.ABC):
    """The other speaker, in a namespace and with a directory of its own.

    It runs at the highest priority, as if it had a machine to itself: how it bears a loaded one is
    not what is tested.
    """

    def __init__(self, namespace, timing):
        self.namespace, self.timing = namespace, timing
        self.sessions, self.auth = [], {}
        self._directory = tempfile.TemporaryDirectory()
        self.programs = []

    def path(self, name):
        return pathlib.Path(self._directory.name, name)

    def spawn(self, *command):
        with in_namespace(self.namespace):
            self.programs.append(Program(*command, preexec_fn=lambda: os.nice(-20)))

    def wait_for_ports(self):
        """Until kelm would not take the namespace any more."""
        def holds_them():
            with in_namespace(self.namespace), open("/proc/thread-self/net/udp") as table:
                ports = {int(line.split()[1].split(":")[1], 16) for line in table.readlines()[1:]}
            return {3784, 4784} <= ports
        wait_until(holds_them, lambda: f"UDP ports of the peer; it said: {self.log()}")

    def log(self):
        return "".join(program.text() for program in self.programs)

    def configure(self, sessions=None, timing=None, auth=None):
        """What is not given stays as it was. `auth` is by interface."""
        self.sessions = self.sessions if sessions is None else sessions
        self.timing = timing or self.timing
        self.auth = self.auth if auth is None else auth
        self.apply()

    def kill(self):
        while self.programs:
            self.programs.pop().kill()

    def close(self):
        self.kill()
        self._directory.cleanup()

    @abc.abstractmethod
    def start(self):
        """Starts it with what is configured; returns when it holds its UDP ports."""

    @abc.abstractmethod
    def apply(self):
        """Makes it follow what is configured from now on."""

    @abc.abstractmethod
    def seen(self, sessions):
        """A list of how it sees these sessions now."""

    def wait_for(self, sessions, state):
        def are_they():
            assert all(p.process.poll() is None for p in self.programs), f"it ended: {self.log()}"
            return all(seen.state == state for seen in self.seen(sessions))
        wait_until(are_they, lambda: f"state {state} at the peer; it said: {self.log()}", poll=0.1)


class Bed:
    """Two namespaces with links between them: kelm serves the near one, a peer runs in the far one.

    The peer is there first: kelm would take its ports, and leaves a namespace alone in which they
    are taken.
    """

    def __init__(self, peer_class, timing, links):
        self._namespaces = Namespaces(None)
        self.peer = self.host = None
        try:
            near, far = (self._namespaces.add(wait=False) for _ in range(2))
            self.links = [self._namespaces.link(near, far, n) for n in range(links)]
            self.peer = peer_class(far, timing)
            self.peer.start()
            self.host = serving(near)
            self.host.wait_for_vrf(near)
        except BaseException:
            self.close()
            raise

    def close(self):
        if self.host:
            self.host.close()
        if self.peer:
            self.peer.close()
        self._namespaces.close()

    @staticmethod
    def restore(link):
        """Makes a link work again that was down at its far end, or lost packets."""
        for side in ("far", "near"):
            link.set_up(side)
        with contextlib.suppress(OSError):  # that the link was down
            link.wire.drain()
