# SPDX-License-Identifier: GPL-2.0
"""Many sessions between two namespaces, a kelm-agent at each end."""

import json
import signal
import urllib.request

from . import PATIENCE
from .kelm_agent import KelmAgent
from .topology import ip

_METRICS_PORTS = {"near": 9816, "far": 9817}
_ADDRESSES = {"near": "10.1.{}.{}", "far": "10.2.{}.{}"}  # a whole network is local to each end


def _address(side, number):
    return _ADDRESSES[side].format(*divmod(number + 1, 256))


class CrowdedAgent(KelmAgent):
    """One end. Its log tells which sessions are Up: each line is read once."""

    def __init__(self, link, side, sessions, interval_ms, multiplier):
        peer = {"near": "far", "far": "near"}[side]
        self.total, self.up, self.lines_read = sessions, set(), 0
        self._metrics = f"127.0.0.1:{_METRICS_PORTS[side]}"
        super().__init__(
            [{"name": f"s{n}", "local": _address(side, n), "peer": _address(peer, n)}
             for n in range(sessions)],
            agent={"metrics-listen": self._metrics}, namespace=getattr(link, f"{side}_ns"),
            interface=link.name,
            min_tx=f"{interval_ms}ms", min_rx=f"{interval_ms}ms", multiplier=multiplier)

    def start(self):
        """Does not wait: how long it takes to be ready is for the caller to measure."""
        self._offset = 0
        self.begin()

    def metrics(self):
        with urllib.request.urlopen(f"http://{self._metrics}/metrics", timeout=PATIENCE) as page:
            return page.read().decode()

    def follow(self):
        """Takes in the log's new lines."""
        new = self.text(self._offset)
        new = new[:new.rfind("\n") + 1]
        self._offset += len(new.encode())
        for line in new.splitlines():
            self.lines_read += 1
            fields = json.loads(line)
            if "state" in fields:
                (self.up.add if fields["state"] == "up" else self.up.discard)(fields["session"])


class Crowd:
    """Both ends, and the link between them."""

    def __init__(self, link, sessions, interval_ms, multiplier=3):
        self.link, self.sides = link, ("near", "far")
        self.ends = []
        for side in self.sides:
            ip("-n", getattr(link, f"{side}_ns"), "route", "add", "local", self._network(side),
               "dev", "lo")
            self._route(side)
        for side in self.sides:
            self.ends.append(CrowdedAgent(link, side, sessions, interval_ms, multiplier))

    @staticmethod
    def _network(side):
        return _ADDRESSES[side].format(0, 0) + "/16"

    def _route(self, side):
        """Towards the other end: one neighbour for all of its addresses."""
        peer = {"near": "far", "far": "near"}[side]
        ip("-n", getattr(self.link, f"{side}_ns"), "route", "replace", self._network(peer), "via",
           getattr(self.link, f"{peer}4"), "dev", self.link.name)

    def cut(self):
        self.link.set("down", "far")

    def mend(self):
        self.link.set_up("far")
        self._route("far")

    def up(self):
        """How many ends of sessions are Up: twice the sessions when all are."""
        for end in self.ends:
            end.follow()
            assert end.process.poll() is None, f"kelm-agent ended: {end.text()[-2000:]}"
        return sum(len(end.up) for end in self.ends)

    def all_up(self):
        return self.up() == sum(end.total for end in self.ends)

    def signal(self, number):
        for end in self.ends:
            end.process.send_signal(number)

    def close(self):
        for end in self.ends:
            if end.process.poll() is None:
                end.process.send_signal(signal.SIGCONT)
                end.kill()
            end.close()
