#!/usr/bin/python3
# SPDX-License-Identifier: GPL-2.0
"""kelm and other BFD speakers on a processor that is loaded more and more.

    namespace kelm-e2e-1                        namespace kelm-e2e-2
    the peer, not loaded       <-- veth -->     the speaker, and what loads its processor

The peer is kelmd --realtime with a kelm-agent, the same for every speaker. It has all processors but
the last one; the speaker and the load share that. Each speaker climbs the same rungs, a minute each:

    idle      nothing else runs
    hogs      four processes that never sleep
    switch    pairs of processes that wake each other
    timers    a storm of high-resolution timers, by processes of real-time priority
    fifo      two processes of real-time priority (SCHED_FIFO 30) that never sleep

A session that goes down is a false failure: nothing is ever wrong with the path. Gaps are those
between two packets of one session, on the wire, by the kernel's time stamps.

Run by way of scripts/isolated.
"""

import argparse
import contextlib
import dataclasses
import json
import os
import pathlib
import signal
import socket
import statistics
import struct
import subprocess
import sys
import time

BENCH = os.path.dirname(os.path.realpath(__file__))
sys.path.insert(0, os.path.join(BENCH, "../tests/e2e"))

from lib import wait_until  # noqa: E402
from lib.bird import Bird  # noqa: E402
from lib.frr import Frr  # noqa: E402
from lib.host import Kelmd  # noqa: E402
from lib.interop import Session, Timing  # noqa: E402
from lib.kelm_agent import KelmAgent  # noqa: E402
from lib.netns import in_namespace  # noqa: E402
from lib.stall import Stall  # noqa: E402
from lib.topology import Namespaces, Wire, ip_batch  # noqa: E402

RUNGS = {
    "idle": None,
    "hogs": ["--cpu", "4"],
    "switch": ["--switch", "4"],
    "timers": ["--hrtimers", "2"],
    "fifo": ["--cpu", "2", "--sched", "fifo", "--sched-prio", "30"],
}
RUNS = ["1@10", "100@50"]
MULTIPLIER = 3
CALM = 2  # seconds for all sessions to be Up on an idle processor before the load begins
TICK = os.sysconf("SC_CLK_TCK")


class Processors:
    """A set of processors of our own for the speaker and its load, apart from all others.

    Without such a set (cgroup version 1's cpuset) the speaker is merely pinned, and the system
    refuses SCHED_DEADLINE to it.
    """

    ROOT = pathlib.Path("/sys/fs/cgroup/cpuset")

    def __init__(self):
        *self.peer, self.loaded = sorted(os.sched_getaffinity(0))
        if not self.peer:
            sys.exit("ladder: needs two processors, one for the peer")
        self.own = self.ROOT / f"kelm-ladder-{os.getpid()}"
        self.apart = (self.ROOT / "cpuset.cpus").exists()

    def __enter__(self):
        if self.apart:
            self.own.mkdir()
            (self.own / "cpuset.cpus").write_text(str(self.loaded))
            (self.own / "cpuset.mems").write_text("0")
            (self.own / "cpuset.cpu_exclusive").write_text("1")
            (self.ROOT / "cpuset.sched_load_balance").write_text("0")
        self._move(self.ROOT, self.peer)
        return self

    def __exit__(self, *_):
        if self.apart:
            (self.ROOT / "cpuset.sched_load_balance").write_text("1")
            wait_until(lambda: not (self.own / "tasks").read_text(), "end of all processes")
            self.own.rmdir()

    def _move(self, group, processors):
        if self.apart:
            (group / "tasks").write_text(str(os.getpid()))
        os.sched_setaffinity(0, processors)

    @contextlib.contextmanager
    def under_load(self):
        """What is started meanwhile runs on the loaded processor."""
        self._move(self.own, {self.loaded})
        try:
            yield
        finally:
            self._move(self.ROOT, self.peer)


@dataclasses.dataclass(frozen=True)
class NumberedSession(Session):
    """One of many on the same link."""

    number: int = 0

    @property
    def near(self):
        return f"10.9.1.{self.number}"

    @property
    def far(self):
        return f"10.9.2.{self.number}"


class Kelm:
    """kelmd and kelm-agent, with the interface of other speakers."""

    OPTIONS = []

    def __init__(self, namespace, timing):
        self.namespace, self.timing, self.programs = namespace, timing, []
        with in_namespace(namespace):
            self.kelmd = Kelmd("--no-netns", *self.OPTIONS)
        self.agent = None

    def configure(self, sessions, far=True):
        def configuration(session):
            keys = session.configuration(**self.timing.keys())
            del keys["namespace"]
            local, peer = (session.far, session.near) if far else (session.near, session.far)
            return {**keys, "local": local, "peer": peer}
        with in_namespace(self.namespace):
            self.agent = KelmAgent([configuration(session) for session in sessions])
        self.programs = [self.kelmd, self.agent]

    def start(self):
        pass

    def downs(self):
        """How often sessions have gone down so far, by number."""
        return sum(each["changes"]["down_count"] for each in self.agent.ask("show")["sessions"])

    def all_up(self):
        return all(each["state"] == "up" for each in self.agent.ask("show")["sessions"])

    def close(self):
        if self.agent:
            self.agent.close()
        self.kelmd.close()


class KelmRealtime(Kelm):
    OPTIONS = ["--realtime"]


SPEAKERS = {"kelmd": Kelm, "kelmd --realtime": KelmRealtime, "BIRD": Bird, "FRR bfdd": Frr}


class Gaps:
    """Between the packets of each session, in milliseconds, as they arrive at the peer."""

    SO_RCVBUFFORCE, MY_DISC, PORT = 33, 14 + 20 + 8 + 4, 14 + 20 + 2

    def __init__(self, namespace, interface):
        self.wire = Wire(namespace, interface)
        self.wire.sock.setsockopt(socket.SOL_SOCKET, self.SO_RCVBUFFORCE, 64 << 20)
        self.wire.sock.setblocking(False)
        self.last, self.gaps = {}, []

    def drain(self):
        with contextlib.suppress(BlockingIOError):
            while True:
                frame, ancillary, _, address = self.wire.sock.recvmsg(128, 64)
                if address[2] == socket.PACKET_OUTGOING or len(frame) < self.MY_DISC + 4 or \
                        struct.unpack_from("!H", frame, self.PORT)[0] != 3784:
                    continue
                seconds, nanoseconds = struct.unpack("qq", ancillary[0][2])
                now = seconds * 1000 + nanoseconds / 1e6
                sender = frame[26:30]
                if sender in self.last:
                    self.gaps.append(now - self.last[sender])
                self.last[sender] = now

    def forget(self):
        self.drain()
        self.last, self.gaps = {}, []


@dataclasses.dataclass
class Rung:
    """What was measured on one."""

    speaker: str
    rung: str
    down: int
    median_ms: float
    percentile_99_ms: float
    longest_ms: float
    cpu_us: float  # per packet, sent or received
    stall_ms: float

    HEAD = (f"  {'':18}{'':8}{'sessions':>9}{'gaps, ms':>24}{'us of processor':>17}{'machine':>9}\n"
            f"  {'speaker':18}{'rung':8}{'down':>9}{'median':>8}{'99 %':>8}{'longest':>8}"
            f"{'per packet':>17}{'stall, ms':>10}")

    def __str__(self):
        return (f"  {self.speaker:18}{self.rung:8}{self.down:9}{self.median_ms:8.1f}"
                f"{self.percentile_99_ms:8.1f}{self.longest_ms:8.1f}{self.cpu_us:17.1f}"
                f"{self.stall_ms:10.1f}")


def options():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("runs", nargs="*", default=RUNS, metavar="N@MS",
                        help="sessions and their interval in milliseconds "
                        f"(default: {' '.join(RUNS)})")
    parser.add_argument("--seconds", type=float, default=60, help="on each rung (default: 60)")
    parser.add_argument("--speakers", nargs="+", choices=SPEAKERS, default=list(SPEAKERS))
    parser.add_argument("--rungs", nargs="+", choices=RUNGS, default=list(RUNGS))
    parser.add_argument("--json", metavar="FILE", help="write the figures to this file too")
    return parser.parse_args()


def cpu_seconds(programs):
    def of(program):
        with open(f"/proc/{program.process.pid}/stat") as file:
            fields = file.read().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / TICK
    return sum(map(of, programs))


@contextlib.contextmanager
def load(processors, rung):
    if RUNGS[rung] is None:
        yield
        return
    with processors.under_load():
        stress = subprocess.Popen(["stress-ng", "--quiet", *RUNGS[rung]], start_new_session=True,
                                  stdin=subprocess.DEVNULL)
    try:
        time.sleep(0.5)
        assert stress.poll() is None, "stress-ng ended"
        yield
    finally:
        os.killpg(stress.pid, signal.SIGKILL)
        stress.wait()


def climb(chosen, processors, name, speaker, peer, gaps):
    for rung in chosen.rungs:
        wait_until(peer.all_up, f"all sessions Up before '{rung}'", timeout=60, poll=0.1)
        time.sleep(CALM)
        with Stall() as stall, load(processors, rung):
            gaps.forget()
            downs, used = peer.downs(), cpu_seconds(speaker.programs)
            deadline = time.monotonic() + chosen.seconds
            while time.monotonic() < deadline:
                time.sleep(0.2)
                gaps.drain()
            used = cpu_seconds(speaker.programs) - used
            downs = peer.downs() - downs
        found = sorted(gaps.gaps)
        row = Rung(name, rung, downs, statistics.median(found), found[len(found) * 99 // 100],
                   found[-1], used * 1e6 / (2 * len(found)), stall.longest * 1000)
        print(row, flush=True)
        yield row


def run(chosen, processors, sessions, interval_ms):
    timing = Timing(interval_ms, interval_ms, MULTIPLIER)
    print(f"{sessions} x {interval_ms} ms, detection after {MULTIPLIER * interval_ms} ms; "
          f"{chosen.seconds:.0f} s on each rung\n{Rung.HEAD}", flush=True)
    for name in chosen.speakers:
        with contextlib.ExitStack() as stack:
            namespaces = Namespaces(None)
            stack.callback(namespaces.close)
            near, far = (namespaces.add(wait=False) for _ in range(2))
            link = namespaces.link(near, far)
            link.wire.close()
            many = [NumberedSession(f"s{n}", link, number=n) for n in range(1, sessions + 1)]
            for namespace, own, theirs, mac in (
                    (near, "near", "far", link.far_mac), (far, "far", "near", link.near_mac)):
                ip_batch(namespace, "".join(
                    f"addr add {getattr(each, own)}/16 dev {link.name}\n"
                    f"neigh replace {getattr(each, theirs)} lladdr {mac} dev {link.name}\n"
                    for each in many))
            with processors.under_load():
                speaker = SPEAKERS[name](far, timing)
                stack.callback(speaker.close)
                speaker.start()
                speaker.configure(many)
            peer = KelmRealtime(near, timing)
            stack.callback(peer.close)
            peer.configure(many, far=False)
            gaps = Gaps(near, link.name)
            stack.callback(gaps.wire.close)
            yield from climb(chosen, processors, name, speaker, peer, gaps)


def main():
    chosen = options()
    results = {}
    with Processors() as processors:
        if not processors.apart:
            print("ladder: no cpusets here: kelmd --realtime has to do with SCHED_FIFO")
        for text in chosen.runs:
            sessions, interval_ms = map(int, text.split("@"))
            results[text] = [dataclasses.asdict(row)
                             for row in run(chosen, processors, sessions, interval_ms)]
    if chosen.json:
        pathlib.Path(chosen.json).write_text(json.dumps(results, indent=1) + "\n")


if __name__ == "__main__":
    main()
