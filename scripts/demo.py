#!/usr/bin/python3
# SPDX-License-Identifier: GPL-2.0
"""Shows kelm at work: a BFD session that outlives its agents' pauses, and notices a cut link.

      namespace left                           namespace right
    +-----------------------+                +-----------------------+
    | kelm-agent            |      veth      | kelm-agent            |
    |        10.0.0.1  eth0-+----------------+-eth0  10.0.0.2        |
    +-----------------------+                +-----------------------+
         one kelm below both agents: it sends, and it watches the time

Shows every command that it runs. If kelm does not do what the text says, it fails and says why.
"""

import json
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "tests" / "e2e"))
from lib import wait_until  # noqa: E402
from lib.agent import KERNEL  # noqa: E402
from lib.host import KELMCTL, Kelmd, Module  # noqa: E402
from lib.kelm_agent import KELM_AGENT  # noqa: E402
from lib.topology import Wire  # noqa: E402

INTERVAL, MULTIPLIER = 400 if KERNEL else 100, 3  # milliseconds, which emulation stretches; intervals
DETECTION = INTERVAL * MULTIPLIER
TICK = 10       # milliseconds by which counting in whole ticks, and their rounding, may be off
PATIENCE = 15   # seconds, for what takes milliseconds
ADDRESSES = {"left": "10.0.0.1", "right": "10.0.0.2"}
PROGRAMS = {"kelmctl": KELMCTL, "kelm-agent": KELM_AGENT}  # those that were built


class Failed(Exception):
    pass


def expect(fact, complaint):
    if not fact:
        raise Failed(complaint)


def say(text):
    print(f"\n{text}", flush=True)


def show(text):
    for line in text.splitlines():
        print(f"    {line}", flush=True)


def run(command):
    program, *arguments = command.split()
    result = subprocess.run([PROGRAMS.get(program, program), *arguments], text=True,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    expect(result.returncode == 0, f"'{command}' failed:\n{result.stdout}")
    return result.stdout


def sh(command):
    """Shows a command, runs it and shows what it says."""
    print(f"  # {command}", flush=True)
    show(run(command))


def cable_up():
    say("1. Two network namespaces, joined by a virtual cable")
    for side in ADDRESSES:
        sh(f"ip netns add {side}")
    sh("ip link add eth0 netns left type veth peer name eth0 netns right")
    for side, address in ADDRESSES.items():
        sh(f"ip -n {side} address add {address}/24 dev eth0")
        sh(f"ip -n {side} link set lo up")
        sh(f"ip -n {side} link set eth0 up")


class Daemon:
    """kelmd in the background."""

    def __init__(self):
        say("2. One kelmd serves all namespaces of the machine")
        print("  # kelmd &", flush=True)
        self.kelmd = Kelmd()
        for side in ADDRESSES:
            self.kelmd.wait_for_vrf(side)
        show(self.kelmd.log())

    def stop(self):
        print(f"  # kill {self.kelmd.process.pid}")
        self.kelmd.stop()

    def kill(self):
        if self.kelmd.process.poll() is None:
            self.kelmd.kill()


class KernelModule:
    """kelm.ko in this machine's kernel, out of which only force takes it: it is meant to stay."""

    def __init__(self):
        say("2. One kelm.ko serves all namespaces of the machine")
        sh(f"insmod {Module.PATH}")
        sh("grep -w ^kelm /proc/modules")

    def stop(self):
        sh("rmmod -f kelm")

    def kill(self):
        if os.path.isdir("/sys/module/kelm"):
            subprocess.run(["rmmod", "-f", "kelm"], check=False)


class Agent:
    """A kelm-agent in the background, for one end of the cable."""

    def __init__(self, side):
        (peer,) = ADDRESSES.keys() - {side}
        self.side = side
        self.process = None
        self.shown = 0
        pathlib.Path(f"{side}.toml").write_text(f"""\
[[session]]
name = "to-{peer}"
namespace = "{side}"
interface = "eth0"
local = "{ADDRESSES[side]}"
peer = "{ADDRESSES[peer]}"
min-tx = "{INTERVAL}ms"
min-rx = "{INTERVAL}ms"
multiplier = {MULTIPLIER}
""")

    def start(self):
        options = f"--config {self.side}.toml --state {self.side}.state --socket {self.side}.sock"
        print(f"  # kelm-agent {options} &", flush=True)
        with open(f"{self.side}.log", "w", encoding="utf-8") as log:
            self.process = subprocess.Popen([KELM_AGENT, "--log", "text", *options.split()],
                                            stderr=log)

    def signal(self, name):
        print(f"  # kill -{name} {self.process.pid}       (the agent on the {self.side})", flush=True)
        self.process.send_signal(getattr(signal, f"SIG{name}"))

    def end(self):
        self.signal("TERM")
        expect(self.process.wait(PATIENCE) == 0, f"the agent on the {self.side} did not end well")

    def kill(self):
        if self.process and self.process.poll() is None:
            self.process.kill()
            self.process.wait()

    def log(self):
        return pathlib.Path(f"{self.side}.log").read_text(encoding="utf-8")

    def show_log(self):
        """What it has logged since the last time."""
        news = self.log()[self.shown:]
        self.shown += len(news)
        show(news)

    def wait_for(self, state):
        wait_until(lambda: self.state()["state"] == state, f"state {state} on the {self.side}",
                   PATIENCE)

    def wait_to_log(self, words):
        """Until the words are in what has not been shown yet; returns when, on the wall clock."""
        wait_until(lambda: words in self.log()[self.shown:], f"'{words}' on the {self.side}",
                   PATIENCE, poll=0.001)
        return time.time()

    def has_negotiated(self):
        timing = self.state()["timing"]
        return (timing["transmit_interval"], timing["detection_time"]) == \
            (1000 * INTERVAL, 1000 * DETECTION)

    def state(self):
        (state,) = json.loads(run(f"kelmctl -j agent show socket {self.side}.sock"))
        return state


def bring_up(agents):
    say("3. An agent for each end. It runs the state machine and negotiates, and tells kelm the\n"
        "   outcome: which packet to send, and how long a silence is a failure")
    show(pathlib.Path("left.toml").read_text())
    for agent in agents:
        agent.start()
    for agent in agents:
        wait_until(lambda: os.path.exists(f"{agent.side}.sock"), "control socket", PATIENCE)
        agent.wait_for("up")
    for agent in agents:
        agent.show_log()
    for agent in agents:
        wait_until(agent.has_negotiated, "negotiated rate", PATIENCE)
    time.sleep(2 * INTERVAL / 1000)  # the packets that settled it are sent out of schedule
    sh("kelmctl agent show socket left.sock")


def from_left(frame):
    return frame.src == ADDRESSES["left"]


def watch_transmission():
    say("4. What arrives at the right end: the time between packets is 75 to 100 % of the interval,\n"
        "   drawn anew each time" +
        (", plus the eighth by which the kernel's timers may be late" if KERNEL else ""))
    wire = Wire("right", "eth0")
    frames = wire.collect(11, from_left, PATIENCE)
    wire.close()
    gaps = [1000 * (b.time - a.time) for a, b in zip(frames, frames[1:])]
    show(" ".join(f"{gap:7.1f}" for gap in gaps) + "  ms")
    expect(min(gaps) >= 0.75 * INTERVAL - TICK, "a packet was sent too early")
    expect(max(gaps) - min(gaps) > 1, "there is no jitter")


def freeze(left, right):
    pause = 10 * DETECTION / 1000
    say(f"5. The agent on the left is stopped for {pause:.0f} seconds, ten detection times. If it sent\n"
        "   the packets itself, the right end would declare a healthy path down")
    wire = Wire("right", "eth0")
    left.signal("STOP")
    time.sleep(pause)
    frames = len(wire.collect(int(pause * 1000 / INTERVAL), from_left, PATIENCE))
    wire.close()
    print(f"    meanwhile: {frames} packets from the left")
    left.signal("CONT")
    for agent in (left, right):
        state = agent.state()
        print(f"    {agent.side}: {state['state']}, went down "
              f"{state['changes']['down_count']} times", flush=True)
        expect(state["state"] == "up" and state["changes"]["down_count"] == 0,
               "the session did not stay up")


def cut_link(agents):
    say(f"6. The link is cut. Both ends know after {MULTIPLIER} x {INTERVAL} ms of silence")
    wire = Wire("right", "eth0")
    last = wire.collect(3, from_left, PATIENCE)[-1].time
    sh("ip -n left link set eth0 down")
    noticed = {agent.side: agent.wait_to_log("down") for agent in reversed(agents)}
    while (frame := wire.receive(from_left, 0.1)) is not None:
        last = frame.time
    wire.close()
    for agent in agents:
        agent.show_log()
    elapsed = 1000 * (noticed["right"] - last)
    print(f"    The agent on the right logged it {elapsed:.1f} ms after the last packet had arrived.")
    expect(elapsed >= DETECTION - TICK, "the failure was reported too early")


def repair(agents):
    say("7. The link is repaired, and the session comes up again. The agent keeps a history")
    sh("ip -n left link set eth0 up")
    for agent in agents:
        agent.wait_for("up")
        agent.show_log()
    sh("kelmctl agent history socket right.sock")


def end(agents, host):
    say("8. The agent on the left is ended. It tells its peer that this is not a failure")
    left, right = agents
    left.end()
    right.wait_to_log("admin-down")
    right.show_log()
    right.end()
    host.stop()


def main():
    title, picture, _ = __doc__.split("\n\n", 2)
    print(f"{title}\n\n{picture}")
    cable_up()
    host = KernelModule() if KERNEL else Daemon()
    agents = [Agent("left"), Agent("right")]
    try:
        bring_up(agents)
        watch_transmission()
        freeze(*agents)
        cut_link(agents)
        repair(agents)
        end(agents, host)
    finally:
        for agent in agents:
            agent.kill()
        host.kill()
    say("That is what kelm does.")


if __name__ == "__main__":
    with tempfile.TemporaryDirectory() as directory:
        os.chdir(directory)
        try:
            main()
        except (Failed, AssertionError, OSError) as error:
            sys.exit(f"\ndemo: FAILED: {error}")
