#!/usr/bin/python3
# SPDX-License-Identifier: GPL-2.0
"""Many sessions with a kelm-agent at each end: how long they take to come back from what.

    namespace kelm-e2e-1                        namespace kelm-e2e-2
    kelm-agent, N sessions     <-- veth -->     kelm-agent, N sessions

One kelmd serves both ends. The phases, in this order:

    start     both agents start; until all sessions are Up
    quiet     nothing happens for 10 s
    cut       the link is cut for 6 s; until all sessions are Up after it was mended
    stop      both agents are stopped (SIGSTOP) for 20 s, while the link is cut and mended; until all
              sessions are Up after the agents go on
    restart   both agents are killed and started again; until both say that all sessions are Up.
              Nothing may change its state.
    end       SIGTERM; until both agents have said goodbye and ended

In all of them but quiet and end, both agents are asked to show all their sessions once a second, and
then for their metrics; the slowest answers count.

Run by way of scripts/isolated.
"""

import argparse
import contextlib
import dataclasses
import json
import os
import resource
import signal
import sys
import threading
import time

BENCH = os.path.dirname(os.path.realpath(__file__))
sys.path.insert(0, os.path.join(BENCH, "../tests/e2e"))

from lib.crowd import Crowd  # noqa: E402
from lib.host import Kelmd  # noqa: E402
from lib.topology import Namespaces  # noqa: E402

RUNS = ["100", "1000", "2000", "10000", "10000@1000"]
PHASES = ["start", "quiet", "cut", "stop", "restart", "end"]
QUIET, CUT, STOPPED = 10, 6, 20  # seconds
SETTLING = 1.5  # seconds: longer than a detection time that an agent has yet to hear of
PROGRESS = 10.0  # seconds between progress lines
NO_ANSWER = OSError, AssertionError  # not there yet, too slow, or given up by the agent
TICK = os.sysconf("SC_CLK_TCK")


def options():
    def run(text):
        sessions, _, interval = text.partition("@")
        return int(sessions), int(interval or 300)

    def phases(text):
        chosen = text.split(",")
        if unknown := set(chosen) - set(PHASES):
            raise argparse.ArgumentTypeError(f"no such phase: {', '.join(sorted(unknown))}")
        return chosen
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("runs", nargs="*", type=run, default=[run(each) for each in RUNS],
                        metavar="N[@MS]", help="sessions, and their interval in milliseconds "
                        f"(default: {' '.join(RUNS)}; the interval: 300)")
    parser.add_argument("--phases", type=phases, default=PHASES, metavar="PHASE,...",
                        help=f"of {', '.join(PHASES)} (default: all; start always runs)")
    parser.add_argument("--limit", type=float, default=120, metavar="SECONDS",
                        help="give up on a phase after this time (default: %(default)s)")
    parser.add_argument("--multiplier", type=int, default=3)
    parser.add_argument("--logs", metavar="DIRECTORY", help="keep the logs of agents and kelmd")
    return parser.parse_args()


def cpu_seconds(process):
    """Its processor time so far; 0 once it has ended."""
    with contextlib.suppress(FileNotFoundError), open(f"/proc/{process.pid}/stat") as file:
        fields = file.read().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / TICK
    return 0


def peak_megabytes(process):
    """The largest resident size that it has had; None once it has ended."""
    with contextlib.suppress(FileNotFoundError), open(f"/proc/{process.pid}/status") as file:
        for line in file:
            if line.startswith("VmHWM:"):
                return int(line.split()[1]) / 1024
    return None


class Asker(threading.Thread):
    """Asks one agent for all its sessions and its metrics, once a second, and remembers the slowest
    answers."""

    def __init__(self, agent):
        super().__init__(daemon=True)
        self.agent, self._answer, self._all_up = agent, None, False
        self.slowest = {"show": 0.0, "metrics": 0.0}
        self._ending = threading.Event()

    def run(self):
        while not self._ending.is_set():
            began = time.monotonic()
            self._answer = self._ask("show", lambda: self.agent.ask_for_text("show")) or self._answer
            self._ask("metrics", self.agent.metrics)
            self._ending.wait(began + 1 - time.monotonic())

    def _ask(self, what, question):
        began, text = time.monotonic(), ""
        with contextlib.suppress(*NO_ANSWER):
            text = question()
        took = time.monotonic() - began
        if text or took > 1:
            self.slowest[what] = max(self.slowest[what], took)
        return text

    def says_all_up(self):
        text, self._answer = self._answer, None
        if text:
            self._all_up = all(s["state"] == "up" for s in json.loads(text)["sessions"])
        return self._all_up

    def end(self):
        self._ending.set()
        self.join()


@dataclasses.dataclass
class Row:
    """What one phase took."""
    phase: str
    seconds: float | None = None  # None: given up
    note: str = ""
    show: float | None = None  # the slowest answer
    metrics: float | None = None
    agents_cpu: float = 0
    kelmd_cpu: float = 0
    agent_mb: float | None = None
    kelmd_mb: float | None = None
    lines: int = 0

    HEAD = (f"  {'phase':8}{'seconds':>9}{'slowest':>9}{'slowest':>9}{'cpu s of':>10}"
            f"{'cpu s of':>10}{'MB of':>8}{'MB of':>8}{'log':>8}\n"
            f"  {'':8}{'':>9}{'show':>9}{'metrics':>9}{'2 agents':>10}"
            f"{'kelmd':>10}{'agent':>8}{'kelmd':>8}{'lines':>8}")

    def __str__(self):
        def number(value, width, missing="-", digits=2):
            return f"{missing:>{width}}" if value is None else f"{value:{width}.{digits}f}"
        return (f"  {self.phase:8}{number(self.seconds, 9, 'never')}{number(self.show, 9)}"
                f"{number(self.metrics, 9)}"
                f"{self.agents_cpu:10.2f}{self.kelmd_cpu:10.2f}{number(self.agent_mb, 8, digits=1)}"
                f"{number(self.kelmd_mb, 8, digits=1)}{self.lines:8}  {self.note}").rstrip()


class Scale:
    """One run: so many sessions at such an interval."""

    def __init__(self, chosen, kelmd, link, sessions, interval_ms):
        self.chosen, self.kelmd, self.sessions = chosen, kelmd, sessions
        self.name = f"{sessions:,} x {interval_ms} ms"
        self.row, self.askers = Row(""), []
        self.crowd = None
        self.make_crowd = lambda: Crowd(link, sessions, interval_ms, chosen.multiplier)

    def wait(self, condition, what):
        """The time until the condition holds, or None; says how it is going."""
        began = told = time.monotonic()
        while True:
            if condition():
                return time.monotonic() - began
            now = time.monotonic()
            if now - began > self.chosen.limit:
                self.row.note = f"{what()} after {now - began:.0f} s"
                return None
            if now - told > PROGRESS:
                told = now
                print(f"  ... {self.row.phase}: {what()} after {now - began:.0f} s", flush=True)
            time.sleep(0.05)

    def pause(self, seconds):
        """As long as something else is to last; the logs are followed meanwhile."""
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            self.crowd.up()
            time.sleep(0.05)

    def wait_for_all_up(self, also=lambda: True):
        """The time until all sessions are Up, and stay so while an agent may still catch up."""
        last_not_up = began = time.monotonic()

        def settled():
            nonlocal last_not_up
            if not (self.crowd.all_up() and also()):
                last_not_up = time.monotonic()
            return time.monotonic() - last_not_up > SETTLING
        waited = self.wait(settled, lambda: f"{self.crowd.up()} of {2 * self.sessions} ends Up")
        return waited and last_not_up - began

    @contextlib.contextmanager
    def asked(self):
        self.askers = [Asker(end) for end in self.crowd.ends]
        for each in self.askers:
            each.start()
        try:
            yield
        finally:
            for each in self.askers:
                each.end()
            self.row.show = max(each.slowest["show"] for each in self.askers)
            self.row.metrics = max(each.slowest["metrics"] for each in self.askers)

    def start(self):
        self.crowd = self.make_crowd()
        with self.asked():
            return self.wait_for_all_up()

    def quiet(self):
        before = self.agents_cpu()
        self.pause(QUIET)
        share = 100 * (self.agents_cpu() - before) / QUIET / 2
        self.row.note = f"{share:.1f} % of a processor for each agent"
        return QUIET

    def cut(self):
        with self.asked():
            self.crowd.cut()
            self.pause(CUT)
            self.row.note = f"{2 * self.sessions - self.crowd.up()} ends were down"
            self.crowd.mend()
            return self.wait_for_all_up()

    def stop(self):
        self.crowd.signal(signal.SIGSTOP)
        self.pause(2)
        self.crowd.cut()
        self.pause(CUT)
        self.crowd.mend()
        self.pause(STOPPED - CUT - 2)
        self.crowd.signal(signal.SIGCONT)
        with self.asked():
            return self.wait_for_all_up()

    def restart(self):
        def downs(end):
            return sum(s["changes"]["down_count"] for s in end.ask("show")["sessions"])
        before = sum(map(downs, self.crowd.ends))
        for end in self.crowd.ends:
            end.kill()
        for end in self.crowd.ends:
            end.start()
        with self.asked():
            took = self.wait_for_all_up(lambda: all([each.says_all_up() for each in self.askers]))
        changes = sum(map(downs, self.crowd.ends)) - before
        self.row.note = f"{changes} sessions went down"
        return took

    def end(self):
        self.crowd.signal(signal.SIGTERM)
        ends = self.crowd.ends
        took = self.wait(lambda: all(end.process.poll() is not None for end in ends),
                         lambda: "not ended")
        for end in ends:
            end.follow()
        statuses = [end.process.poll() for end in ends]
        if statuses != [0, 0]:
            self.row.note += f" exit statuses {statuses}"
        return took

    def agents_cpu(self):
        """Of those that run and of those that have ended."""
        ended = resource.getrusage(resource.RUSAGE_CHILDREN)
        ends = self.crowd.ends if self.crowd else []
        return ended.ru_utime + ended.ru_stime + sum(cpu_seconds(end.process) for end in ends)

    def log_lines(self):
        logged = sum(end.lines_read for end in self.crowd.ends) if self.crowd else 0
        return logged + self.kelmd.log().count("\n")

    def measure(self, phase):
        row = self.row = Row(phase)
        lines, agents, daemon = self.log_lines(), self.agents_cpu(), cpu_seconds(self.kelmd.process)
        try:
            row.seconds = getattr(self, phase)()
        except NO_ANSWER as problem:
            row.note = f"{type(problem).__name__}: {problem}"
        row.agents_cpu = self.agents_cpu() - agents
        row.kelmd_cpu = cpu_seconds(self.kelmd.process) - daemon
        row.agent_mb = max((peak_megabytes(end.process) for end in self.crowd.ends),
                           key=lambda megabytes: megabytes or 0)
        row.kelmd_mb = peak_megabytes(self.kelmd.process)
        if (status := self.kelmd.process.poll()) is not None:
            row.note += f" kelmd has ended with status {status}"
        row.lines = self.log_lines() - lines
        print(row, flush=True)

    def run(self):
        print(f"{self.name}\n{Row.HEAD}", flush=True)
        for phase in PHASES:
            if phase == "start" or phase in self.chosen.phases:
                self.measure(phase)

    def keep_logs(self, directory):
        os.makedirs(directory, exist_ok=True)
        name = os.path.join(directory, self.name.replace(" ", "").replace(",", ""))
        for end, side in zip(self.crowd.ends, self.crowd.sides):
            with open(f"{name}-{side}.log", "w") as file:
                file.write(end.text())
        with open(f"{name}-kelmd.log", "w") as file:
            file.write(self.kelmd.log())


def run(chosen, sessions, interval_ms):
    with contextlib.ExitStack() as stack:
        kelmd = Kelmd()
        stack.callback(kelmd.kill)
        namespaces = Namespaces(kelmd)
        stack.callback(namespaces.close)
        link = namespaces.link(namespaces.add(), namespaces.add())
        link.wire.close()
        scale = Scale(chosen, kelmd, link, sessions, interval_ms)
        stack.callback(lambda: scale.crowd and scale.crowd.close())
        if chosen.logs:
            stack.callback(lambda: scale.crowd and scale.keep_logs(chosen.logs))
        scale.run()


def main():
    chosen = options()
    print(f"sessions between two namespaces, a kelm-agent at each end, one kelmd, on "
          f"{len(os.sched_getaffinity(0))} processors")
    for sessions, interval_ms in chosen.runs:
        run(chosen, sessions, interval_ms)


if __name__ == "__main__":
    main()
