#!/usr/bin/python3
# SPDX-License-Identifier: GPL-2.0
"""Processor time per packet sent and received by kelmd, beside programs that do nothing else.

    namespace kelm-e2e-1                            namespace kelm-e2e-2
    kelmd, or a bare program        <-- veth -->    nobody, or a bare program that sends

The time is that of all threads of the process, the kernel's work on their behalf included. Sending
into a veth includes the way up at its other end; packets are sent to a link-layer address that
nobody has, so that they end there. Reception begins with a datagram in the socket.

Run by way of scripts/isolated.
"""

import argparse
import contextlib
import os
import struct
import subprocess
import sys
import time

BENCH = os.path.dirname(os.path.realpath(__file__))
sys.path.insert(0, os.path.join(BENCH, "../tests/e2e"))

from lib import bfd  # noqa: E402
from lib import protocol as p  # noqa: E402
from lib.agent import Agent  # noqa: E402
from lib.host import BUILD, Kelmd  # noqa: E402
from lib.topology import Namespaces, ip  # noqa: E402

BARE = os.path.join(BUILD, "bin", "kelm_bench_bare")
OTHER_PORT = 3799  # the bare receiver's; kelmd has the well-known ones


def options():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--seconds", type=int, default=10, help="of each measurement")
    parser.add_argument("--sessions", type=int, default=1000)
    parser.add_argument("--period", type=int, default=20, help="of transmission, milliseconds")
    return parser.parse_args()


def cpu_ns(pid):
    """The processor time of all threads of a process so far."""
    total = 0
    for task in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{task}/schedstat") as file:
            total += int(file.read().split()[0])
    return total


def interface_packets(namespace, interface):
    """Packets that have gone out of an interface."""
    path = f"/sys/class/net/{interface}/statistics/tx_packets"
    return int(subprocess.check_output(["ip", "netns", "exec", namespace, "cat", path]))


class Bare:
    """A bare program in a namespace; its result is the packets and the nanoseconds of each."""

    def __init__(self, namespace, *arguments):
        self.process = subprocess.Popen(
            ["ip", "netns", "exec", namespace, BARE, *map(str, arguments)],
            stdout=subprocess.PIPE, text=True)

    def result(self):
        output, _ = self.process.communicate()
        if self.process.returncode:
            sys.exit("kelm_bench_bare failed")
        packets, nanoseconds = map(int, output.split())
        return packets, nanoseconds / packets


class Bench:
    def __init__(self, chosen, kelmd, link, agent):
        self.chosen, self.kelmd, self.link, self.agent = chosen, kelmd, link, agent
        # Without jitter kelmd is a tick ahead of the period: it takes off half of one, rounded up.
        self.rate = chosen.sessions * 1000 // (chosen.period - 1)
        self.discs = range(1, chosen.sessions + 1)

    def neighbours(self, anybody_there):
        """Fixes the link-layer addresses; what near sends arrives, or ends at far's interface."""
        nobody = "02:00:00:00:ff:ff"
        for ns, address, mac in (
                (self.link.near_ns, self.link.far4, self.link.far_mac if anybody_there else nobody),
                (self.link.far_ns, self.link.near4, self.link.near_mac)):
            ip("-n", ns, "neigh", "replace", address, "lladdr", mac, "nud", "permanent",
               "dev", self.link.name)

    def send_bare(self, namespace, source, destination, port, rate):
        return Bare(namespace, "send", source, destination, port, self.chosen.sessions, rate,
                    self.chosen.seconds)

    def kelmd_sends(self):
        for disc in self.discs:
            packet = self.link.packet(bfd.Bfd(my_disc=disc, your_disc=disc).pack())
            self.agent.request(p.TX_SET_PACKET, p.tx_set_packet(
                disc, packet, period=self.chosen.period * 1000))
        self.agent.request(p.TX_PATH_READY, p.tx_path_ready())
        time.sleep(1)

        def reading():
            return (interface_packets(self.link.near_ns, self.link.name),
                    cpu_ns(self.kelmd.process.pid))
        before = reading()
        time.sleep(self.chosen.seconds)
        after = reading()
        for disc in self.discs:
            self.agent.request(p.TX_DELETE_PACKET, struct.pack("=I", disc))
        packets = after[0] - before[0]
        return packets, (after[1] - before[1]) / packets

    def kelmd_receives(self):
        for disc in self.discs:
            self.agent.request(p.RX_SET_SESSION, p.rx_set_session(
                disc, flags=p.TIMER_ACTIVE, period=1_000_000, failure=p.failure_message(disc)))

        def received():
            return sum(s.num_received for s in self.agent.stats())
        before = cpu_ns(self.kelmd.process.pid)
        sent, _ = self.send_bare(self.link.far_ns, self.link.far4, self.link.near4, 3784,
                                 self.rate).result()
        time.sleep(0.2)
        after = cpu_ns(self.kelmd.process.pid)
        packets = received()
        if packets != sent:
            print(f"  kelmd received {packets} of {sent} packets")
        return packets, (after - before) / packets

    def bare_receives(self):
        receiver = Bare(self.link.near_ns, "receive", OTHER_PORT)
        time.sleep(0.5)
        sent, _ = self.send_bare(self.link.far_ns, self.link.far4, self.link.near4, OTHER_PORT,
                                 self.rate).result()
        result = receiver.result()
        if result[0] != sent:
            print(f"  the bare program received {result[0]} of {sent} packets")
        return result

    def run(self):
        print(f"{'':34}{'packets':>10}{'ns each':>10}{'to bare':>10}")

        def row(name, result, base):
            print(f"{name:34}{result[0]:>10}{result[1]:>10.0f}{result[1] / base[1]:>10.2f}")
            return result
        self.neighbours(anybody_there=False)
        near = (self.link.near_ns, self.link.near4, self.link.far4, 3784)
        bare = self.send_bare(*near, self.rate).result()
        row("bare sendmsg, at kelmd's pace", bare, bare)
        row("bare sendmsg, without pause", self.send_bare(*near, 0).result(), bare)
        row("kelmd sends", self.kelmd_sends(), bare)
        self.neighbours(anybody_there=True)
        bare = row("bare recvmmsg", *[self.bare_receives()] * 2)
        row("kelmd receives", self.kelmd_receives(), bare)


def main():
    chosen = options()
    sys.stdout.reconfigure(line_buffering=True)
    with contextlib.ExitStack() as stack:
        kelmd = Kelmd()
        stack.callback(kelmd.close)
        namespaces = Namespaces(kelmd)
        stack.callback(namespaces.close)
        link = namespaces.link()
        link.wire.close()
        agent = stack.enter_context(Agent(link.near_ns))
        print(f"kelmd with {chosen.sessions} sessions, {chosen.period} ms: processor time per "
              f"packet, {chosen.seconds} s each")
        Bench(chosen, kelmd, link, agent).run()
        kelmd.check()


if __name__ == "__main__":
    main()
