#!/usr/bin/python3
# SPDX-License-Identifier: GPL-2.0
"""How exact the timers of kelm.ko are on the kernel that runs: transmission and detection.

    namespace kelm-e2e-1                      namespace kelm-e2e-2
    sessions 1, 2, ...      <-- veth -->      this program: sends, and takes time stamps

All times are the kernel's. Transmission: from one packet of a session without jitter to the next,
less the period, from time stamps on the wire; more than 0 is later than negotiated. Detection: from
a session's last packet to its failure, less the detection time, from the session's statistics.

For a virtual machine; README.md tells how it is run.
"""

import argparse
import contextlib
import ctypes
import mmap
import os
import random
import signal
import sys
import time

BENCH = os.path.dirname(os.path.realpath(__file__))
sys.path.insert(0, os.path.join(BENCH, "../tests/e2e"))

from lib import protocol as p  # noqa: E402
from lib.agent import Agent  # noqa: E402
from lib.bfd import Bfd  # noqa: E402
from lib.host import Module  # noqa: E402
from lib.topology import Namespaces  # noqa: E402

MULTIPLIER = 3
STALL, SLEEP = 0.002, 0.002  # seconds: what counts as a stall, and how often one is looked for


def options():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--sessions", type=int, default=20)
    parser.add_argument("--samples", type=int, default=400, help="of each figure, at least")
    parser.add_argument("periods", type=int, nargs="*", default=[50, 300, 1000],
                        help="milliseconds (default: 50 300 1000)")
    return parser.parse_args()


class Stalls:
    """Counts how often, and how long, the machine stood still while this is entered."""

    def __enter__(self):
        self._found = (ctypes.c_double * 2).from_buffer(mmap.mmap(-1, mmap.PAGESIZE))
        self._child = os.fork()
        if self._child == 0:
            self._watch()
        return self

    def _watch(self):
        os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(50))
        last = time.monotonic()
        while True:
            time.sleep(SLEEP)
            last, before = time.monotonic(), last
            if (late := last - before - SLEEP) > STALL:
                self._found[0] += 1
                self._found[1] += late

    def __exit__(self, *_):
        os.kill(self._child, signal.SIGKILL)
        os.waitpid(self._child, 0)

    def __str__(self):
        return f"{self._found[0]:.0f} ({self._found[1] * 1000:.0f} ms)"


def transmission(agent, link, discs, period, samples):
    """Milliseconds by which packets follow the one before later than the period."""
    for disc in discs:
        agent.request(p.TX_SET_PACKET, p.tx_set_packet(
            disc, link.packet(Bfd(my_disc=disc).pack()), period=period * 1000))
        time.sleep(random.uniform(0, 2 * period / 1000 / len(discs)))
    link.wire.drain()
    last, late = {}, []
    while len(late) < samples:
        frame = link.receive()
        disc = frame.bfd.my_disc
        if disc in last:
            late.append((frame.time - last[disc]) * 1000 - period)
        last[disc] = frame.time
    for disc in discs:
        agent.request(p.TX_DELETE_PACKET, disc.to_bytes(4, sys.byteorder))
    return late


def detection(agent, link, discs, period, samples):
    """Milliseconds from when a session has to fail until it does."""
    late = []
    while len(late) < samples:
        for disc in discs:
            agent.request(p.RX_SET_SESSION, p.rx_set_session(
                disc, flags=p.TIMER_ACTIVE, multiplier=MULTIPLIER, period=period * 1000,
                failure=p.failure_message(disc)))
            link.send(Bfd(my_disc=disc, your_disc=disc))
            time.sleep(random.uniform(0, 0.02))
        time.sleep(MULTIPLIER * period / 1000 * 1.2 + 0.1)
        for s in agent.stats():
            if not hasattr(s, "num_timeout") or not s.num_timeout or not s.num_received:
                continue
            silent = (s.last_change_sec - s.last_rx_sec) * 1000 + \
                (s.last_change_nsec - s.last_rx_nsec) / 1e6
            if silent > 0:
                late.append(silent - MULTIPLIER * period)
        for disc in discs:
            agent.request(p.RX_DELETE_SESSION, disc.to_bytes(4, sys.byteorder))
    return late


def percentiles(late):
    late.sort()
    median, ninetieth = (late[len(late) * n // 100] for n in (50, 90))
    return f"{median:8.2f}{ninetieth:8.2f}{late[-1]:9.2f}"


def main():
    chosen = options()
    sys.stdout.reconfigure(line_buffering=True)
    module = Module()
    print(f"Linux {os.uname().release}, milliseconds late:")
    print(f"{'period':>6} {'':12}{'median':>8}{'90 %':>8}{'longest':>9}{'samples':>9}"
          f"  stalls beyond {STALL * 1000:.0f} ms")
    with contextlib.ExitStack() as stack:
        stack.callback(module.close)
        namespaces = Namespaces(module)
        stack.callback(namespaces.close)
        link = namespaces.link()
        agent = stack.enter_context(Agent(link.near_ns))
        agent.request(p.TX_PATH_READY, p.tx_path_ready())
        for period in chosen.periods:
            for measure in (transmission, detection):
                with Stalls() as stalls:
                    late = measure(agent, link, range(1, chosen.sessions + 1), period,
                                   chosen.samples)
                print(f"{period:6} {measure.__name__:12}{percentiles(late)}{len(late):9}  {stalls}")


if __name__ == "__main__":
    main()
