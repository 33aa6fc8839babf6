#!/usr/bin/python3
# SPDX-License-Identifier: GPL-2.0
"""Shows kelm at work: a BFD session between two namespaces, a cut link, the failure detected.

      namespace left                           namespace right
    +-----------------------+                +-----------------------+
    | session 1, packet 1   |      veth      | session 2, packet 2   |
    |        10.0.0.1  eth0-+----------------+-eth0  10.0.0.2        |
    +-----------------------+                +-----------------------+
                 one kelmd keeps both sides' packets and timers

Everything a person would type is shown as it is run. Fails, and says how, if kelm does not do what
the text says.
"""

import json
import os
import pathlib
import signal
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "tests" / "e2e"))
from lib import bfd, wait_until  # noqa: E402
from lib.host import KELMCTL, Kelmd  # noqa: E402
from lib.topology import Wire  # noqa: E402

INTERVAL, MULTIPLIER = 100, 3  # milliseconds, intervals
DETECTION = INTERVAL * MULTIPLIER
TICK = 10       # milliseconds by which counting in whole ticks, and their rounding, may be off
PATIENCE = 5    # seconds, for what takes milliseconds
LEFT, RIGHT = "10.0.0.1", "10.0.0.2"
STATES = ["admin-down", "down", "init", "up"]


class Failed(Exception):
    pass


def expect(fact, complaint):
    if not fact:
        raise Failed(complaint)


def say(text):
    print(f"\n{text}", flush=True)


def sh(command):
    """Shows a command and runs it; kelmctl is the one that was built."""
    print(f"  # {command}", flush=True)
    program, *arguments = command.split()
    result = subprocess.run([KELMCTL if program == "kelmctl" else program, *arguments], text=True,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    for line in result.stdout.splitlines():
        print(f"    {line}", flush=True)
    expect(result.returncode == 0, f"'{command}' failed")


def cable_up():
    say("1. Two network namespaces, joined by a virtual cable")
    for side in ("left", "right"):
        sh(f"ip netns add {side}")
    sh("ip link add eth0 netns left type veth peer name eth0 netns right")
    for side, address in (("left", LEFT), ("right", RIGHT)):
        sh(f"ip -n {side} address add {address}/24 dev eth0")
        sh(f"ip -n {side} link set lo up")
        sh(f"ip -n {side} link set eth0 up")


def start_daemon():
    say("2. One kelmd serves all namespaces of the machine")
    print("  # kelmd &", flush=True)
    kelmd = Kelmd()
    for side in ("left", "right"):
        kelmd.wait_for_vrf(side)
    print("    " + kelmd.log().strip().replace("\n", "\n    "))
    return kelmd


def configure():
    say(f"3. A BFD session: each end sends every {INTERVAL} ms, less jitter, and takes the other one\n"
        f"   for dead after {MULTIPLIER} x {INTERVAL} ms of silence. (An agent would do this, in a few "
        "messages.)")
    ends = (("left", 1, 2, LEFT, RIGHT), ("right", 2, 1, RIGHT, LEFT))
    for side, mine, theirs, local, peer in ends:
        sh(f"kelmctl -n {side} packet set {mine} local {local} peer {peer} interval {INTERVAL}ms "
           f"your-discriminator {theirs} state up")
    sh("kelmctl tx-path ready")
    for side, mine, *_ in ends:
        sh(f"kelmctl -n {side} session set {mine} interval {INTERVAL}ms multiplier {MULTIPLIER} "
           f"latch {mine}")


def watch_transmission():
    say("4. What arrives at the right end: the time between packets is 75 to 100 % of the interval,\n"
        "   drawn anew each time")
    wire = Wire("right", "eth0")
    frames = wire.collect(21, lambda frame: frame.src == LEFT, PATIENCE)
    wire.close()
    gaps = [1000 * (b.time - a.time) for a, b in zip(frames, frames[1:])]
    for row in range(0, len(gaps), 10):
        print("    " + " ".join(f"{gap:7.1f}" for gap in gaps[row:row + 10]) + "  ms")
    expect(min(gaps) >= 0.75 * INTERVAL - TICK, "a packet was sent too early")
    expect(max(gaps) - min(gaps) > 1, "there is no jitter")
    sh("kelmctl -n left session show")
    sh("kelmctl -n left packet show")


def cut_link():
    """Returns when the last packet from the left arrived, on the wall clock."""
    say("5. The link is cut")
    wire = Wire("right", "eth0")
    last = wire.collect(3, lambda frame: frame.src == LEFT, PATIENCE)[-1]
    sh("ip -n left link set eth0 down")
    while (frame := wire.receive(lambda frame: frame.src == LEFT, 0.1)) is not None:
        last = frame
    wire.close()
    return last.time


class Listener:
    """The agent of one end, waiting for failures: kelmctl monitor."""

    def __init__(self, side):
        self.side = side
        self.process = subprocess.Popen([KELMCTL, "-n", side, "-j", "monitor", "failures"],
                                        stdout=subprocess.PIPE, text=True)

    def failure(self):
        """The message that arrives, and when."""
        signal.alarm(PATIENCE)
        line = self.process.stdout.readline()
        arrival = time.time()
        signal.alarm(0)
        expect(line, f"kelmctl monitor ended on the {self.side}")
        return json.loads(line), arrival

    def close(self):
        self.process.kill()
        self.process.wait()


def detect(listeners):
    last_packet = cut_link()
    say("6. Both ends are told, without any agent having looked at a clock")
    for listener in listeners:
        message, arrival = listener.failure()
        print(f"    {listener.side + ':':6} {json.dumps(message)}")
        if listener.side != "right":
            continue
        elapsed = 1000 * (arrival - last_packet)
        print(f"    right: the failure message came {elapsed:.1f} ms after the last packet; "
              f"multiplier x interval is {DETECTION} ms")
        expect(elapsed >= DETECTION - TICK, "the failure was reported too early")
        expect(elapsed < 1000 * PATIENCE, "the failure was reported far too late")


def show_latched():
    say("7. The link is repaired. kelm has latched the packets of the failed sessions: without any\n"
        "   word from an agent they now say why")
    wire = Wire("right", "eth0")
    sh("ip -n left link set eth0 up")
    frame = wire.receive(lambda frame: frame.src == LEFT, PATIENCE)
    wire.close()
    expect(frame, "no packet came after the repair")
    packet = frame.bfd
    print(f"    on the wire: {frame.payload.hex(' ', 4)}")
    print(f"    state {STATES[packet.state]}, diagnostic {packet.diag} (control detection time "
          f"expired),\n    my discriminator {packet.my_disc}, your discriminator {packet.your_disc}, "
          f"sent every {packet.min_tx // 1000} ms")
    expect((packet.state, packet.diag, packet.your_disc) ==
           (bfd.DOWN, bfd.DIAG_CTRL_TIMEOUT, 0), "the packet was not latched")


def main():
    print(__doc__.split("\n\n", 1)[0])
    print("\n" + __doc__.split("\n\n")[1])
    cable_up()
    kelmd = start_daemon()
    try:
        configure()
        watch_transmission()
        listeners = [Listener("right"), Listener("left")]
        try:
            detect(listeners)
        finally:
            for listener in listeners:
                listener.close()
        show_latched()
        say("8. kelmd ends and leaves nothing behind")
        print(f"  # kill {kelmd.process.pid}")
        kelmd.stop()
    finally:
        if kelmd.process.poll() is None:
            kelmd.kill()
    say("That is what kelm does.")


def too_long(*_):
    raise Failed("no failure message came")


if __name__ == "__main__":
    signal.signal(signal.SIGALRM, too_long)
    try:
        main()
    except (Failed, AssertionError, OSError) as error:
        sys.exit(f"\ndemo: FAILED: {error}")
