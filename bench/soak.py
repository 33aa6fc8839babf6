#!/usr/bin/python3
# SPDX-License-Identifier: GPL-2.0
"""Many sessions on a machine that is busy: what fails, what is lost, how late packets go out.

    namespace kelm-e2e-1                        namespace kelm-e2e-2
    sessions 1, 2, ...         <-- veth -->     sessions 1000001, 1000002, ...

One kelmd serves both ends, so that everything it sends it also has to receive. Meanwhile an agent
dumps all statistics in a loop, and every processor is hogged by a process that never sleeps. In the
middle all agents stop to read for ten detection times, the dumping one within a dump.

A failed session is a false failure: both ends are there all the time. A datagram is lost when one
end's count of transmissions stays ahead of the other end's count of accepted packets.

Lateness is measured on the wire, with the kernel's time stamps, on every fifth session of one
end. Those are sent without jitter: the next packet of such a session is due exactly a period, less
a tick, after the tick of the one before. All other sessions have the usual jitter.

Run by way of scripts/isolated.
"""

import argparse
import contextlib
import ctypes
import os
import signal
import socket
import struct
import sys
import threading
import time

BENCH = os.path.dirname(os.path.realpath(__file__))
sys.path.insert(0, os.path.join(BENCH, "../tests/e2e"))

from lib import bfd, wait_until  # noqa: E402
from lib import protocol as p  # noqa: E402
from lib.agent import Agent  # noqa: E402
from lib.host import Kelmd  # noqa: E402
from lib.netns import in_namespace  # noqa: E402
from lib.topology import Namespaces, ip  # noqa: E402

FAR = 1_000_000  # the far end's discriminators are the near end's and this
EVERY_NTH_WITHOUT_JITTER = 5
JITTERED_PORT, PLAIN_PORT = 49152, 49153  # UDP source ports tell the wire's watcher who is who
SETTLING = 20.0  # seconds for lost datagrams to prove that they are not just late


def options():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--seconds", type=float, default=300)
    parser.add_argument("--sessions", type=int, default=500)
    parser.add_argument("--period", type=int, default=100, help="milliseconds")
    parser.add_argument("--multiplier", type=int, default=3,
                        help="packets that a session can miss before it fails")
    parser.add_argument("--realtime", action="store_true", help="run kelmd --realtime")
    parser.add_argument("--judge", action="store_true",
                        help="exit with 1 if a session failed or a datagram was lost")
    return parser.parse_args()


class End:
    """One end of all sessions."""

    def __init__(self, agent, address, peer, first, peer_first, chosen):
        self.agent, self.address, self.peer = agent, address, peer
        self.multiplier, self.period = chosen.multiplier, chosen.period * 1000
        self.pairs = [(first + n, peer_first + n) for n in range(1, chosen.sessions + 1)]

    def receive(self, flags=0):
        for mine, _ in self.pairs:
            self.agent.request(p.RX_SET_SESSION, p.rx_set_session(
                mine, flags=flags, period=self.period, multiplier=self.multiplier,
                failure=p.failure_message(mine)))

    def transmit(self):
        for mine, theirs in self.pairs:
            plain = mine % EVERY_NTH_WITHOUT_JITTER == 0
            packet = bfd.ip_datagram(self.address, self.peer,
                                     bfd.Bfd(my_disc=mine, your_disc=theirs).pack(),
                                     sport=PLAIN_PORT if plain else JITTERED_PORT)
            self.agent.request(p.TX_SET_PACKET, p.tx_set_packet(
                mine, packet, period=self.period, jitter=p.JITTER_NONE if plain else p.JITTER_75))

    def stats(self, disc=0):
        """Statistics by discriminator, of all or of one: of transmission and of reception."""
        found = self.agent.stats(disc)
        return ({s.disc: s for s in found if hasattr(s, "num_sent")},
                {s.disc: s for s in found if hasattr(s, "num_received")})


def lost(ends):
    """How many datagrams each session has lost: {discriminator: number}, without the zeroes.

    Nothing stops for the count. Read after the receiver, the sender's count is ahead by what was
    lost, and by what was sent or under way in between; the least of several readings, taken when
    the session happened to be silent, is the loss alone. Of many sessions few are silent during
    both dumps: the others are asked one by one.
    """
    least = {}

    for sender, receiver in (ends, ends[::-1]):
        received = receiver.stats()[1]
        sent = sender.stats()[0]
        for mine, theirs in sender.pairs:
            least[mine] = sent[mine].num_sent - received[theirs].num_received

    def count():
        for sender, receiver in (ends, ends[::-1]):
            for mine, theirs in sender.pairs:
                if least[mine]:
                    received = receiver.stats(theirs)[1][theirs]
                    sent = sender.stats(mine)[0][mine]
                    least[mine] = min(least[mine], sent.num_sent - received.num_received)
        return not any(least.values())
    with contextlib.suppress(AssertionError):
        wait_until(count, "datagram that was sent", timeout=SETTLING, poll=0.05)
    return {disc: number for disc, number in least.items() if number}


@contextlib.contextmanager
def hogged():
    """Every processor has a process on it that never sleeps."""
    hogs = []
    try:
        for processor in os.sched_getaffinity(0):
            hogs.append(os.fork())
            if hogs[-1] == 0:
                os.sched_setaffinity(0, {processor})
                while True:
                    pass
        yield
    finally:
        for pid in hogs:
            os.kill(pid, signal.SIGKILL)
            os.waitpid(pid, 0)


class Dumper(threading.Thread):
    """An agent that asks for all statistics, again and again."""

    def __init__(self, namespace):
        super().__init__(daemon=True)
        self.agent = Agent(namespace)
        self.ending, self.reading = threading.Event(), threading.Event()
        self.reading.set()
        self.dumps = 0

    def run(self):
        body = p.get_stats(flags=p.STATS_ALL_VRFS | p.STATS_MODULE)
        while not self.ending.is_set():
            dump = self.agent.start_dump(p.GET_STATS, body)
            self.reading.wait()
            self.agent.finish_dump(dump)
            self.dumps += 1

    def end(self):
        self.ending.set()
        self.join()
        self.agent.close()


class Watcher:
    """Sees the packets without jitter that go out of an interface, and when."""

    ETH_P_ALL, ETHERNET, IPV4, UDP = 3, 14, 20, 8
    MY_DISC = ETHERNET + IPV4 + UDP + 4
    SO_ATTACH_FILTER, SO_RCVBUFFORCE, SO_TIMESTAMPNS = 26, 33, 35
    SOL_PACKET, PACKET_STATISTICS = 263, 6

    def __init__(self, namespace, interface, period):
        # Half a tick is taken off the period, which makes a whole one.
        self.due_ms = period - 1
        with in_namespace(namespace):
            self.sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
        self._keep_only_plain()
        self.sock.setsockopt(socket.SOL_SOCKET, self.SO_TIMESTAMPNS, 1)
        self.sock.setsockopt(socket.SOL_SOCKET, self.SO_RCVBUFFORCE, 32 << 20)
        self.sock.bind((interface, self.ETH_P_ALL))
        self.sock.setblocking(False)
        self.last, self.lateness = {}, []

    def _keep_only_plain(self):
        """A classic BPF program: outgoing, and from the source port of packets without jitter."""
        packet_type = 0xFFFFF000 + 4  # SKF_AD_OFF + SKF_AD_PKTTYPE
        program = ((0x28, 0, 0, packet_type), (0x15, 0, 3, socket.PACKET_OUTGOING),
                   (0x28, 0, 0, self.ETHERNET + self.IPV4), (0x15, 0, 1, PLAIN_PORT),
                   (0x06, 0, 0, 0xFFFF), (0x06, 0, 0, 0))
        code = ctypes.create_string_buffer(b"".join(struct.pack("=HBBI", *op) for op in program))
        self.sock.setsockopt(socket.SOL_SOCKET, self.SO_ATTACH_FILTER,
                             struct.pack("HP", len(program), ctypes.addressof(code)))

    def drain(self, record=True):
        with contextlib.suppress(BlockingIOError):
            while True:
                frame, ancillary, _, _ = self.sock.recvmsg(256, 64)
                seconds, nanoseconds = struct.unpack("qq", ancillary[0][2])
                disc = struct.unpack_from("!I", frame, self.MY_DISC)[0]
                now = seconds * 1000 + nanoseconds / 1e6
                if record and disc in self.last:
                    self.lateness.append(now - self.last[disc] - self.due_ms)
                self.last[disc] = now

    def overlooked(self):
        """Packets that the watcher itself missed, which would look like late ones."""
        statistics = self.sock.getsockopt(self.SOL_PACKET, self.PACKET_STATISTICS, 8)
        return struct.unpack("II", statistics)[1]


def failures(agents):
    """Discriminators of the failure messages that have come."""
    found = []
    for agent in agents:
        while msg := agent.event(timeout=0):
            found.append(struct.unpack_from("=I", msg.body)[0] if msg.type == p.SESSION_FAILURE
                         else f"message {msg.type}")
    return found


def print_lateness(lateness):
    total = len(lateness)
    if not total:
        print("lateness: nothing was measured")
        return
    lateness.sort()
    print(f"lateness of {total} transmissions, exact to a tick of 1 ms:")
    below = float("-inf")
    for limit in (1, 2, 4, 8, 16, 32, 64, 128, float("inf")):
        count = sum(below < late <= limit for late in lateness)
        name = f"up to {limit:3.0f} ms" if limit != float("inf") else f"above {below:3.0f} ms"
        print(f"  {name:12} {count:9} {100 * count / total:9.4f} %")
        below = limit
    for percent in (50, 90, 99, 99.9, 100):
        at = lateness[min(int(total * percent / 100), total - 1)]
        print(f"  {percent:5} percentile {max(at, 0):9.2f} ms")


def print_intervals(sent):
    print("intervals between transmissions of all sessions, as kelmd counts them:")
    counts = {name: sum(getattr(s, name) for s in sent) for name in
              ("sent_within_1p", "sent_within_2p", "sent_within_3p", "sent_after_3p")}
    total = sum(counts.values()) or 1
    for name, count in counts.items():
        print(f"  {name:14} {count:9} {100 * count / total:9.4f} %")
    print(f"  longest {max(s.max_lateness for s in sent) / 1000:.1f} ms")


def soak(watcher, listeners, dumper, seconds, stop):
    """The busy time itself; returns the failures that were reported. Agents stop for some time."""
    failed = []
    watcher.drain(record=False)
    dumper.start()
    with hogged():
        begin = time.monotonic()
        while (elapsed := time.monotonic() - begin) < seconds:
            time.sleep(0.1)
            watcher.drain()
            if abs(elapsed - seconds / 2) < stop / 2:
                dumper.reading.clear()
            else:
                dumper.reading.set()
                failed += failures(listeners)
        dumper.reading.set()
        dumper.end()
    watcher.drain()
    return failed + failures(listeners)


def main():
    chosen = options()
    sys.stdout.reconfigure(line_buffering=True)
    with contextlib.ExitStack() as stack:
        kelmd = Kelmd(*(["--realtime"] if chosen.realtime else []))
        stack.callback(kelmd.close)
        namespaces = Namespaces(kelmd)
        stack.callback(namespaces.close)
        link = namespaces.link(namespaces.add(), namespaces.add())
        link.wire.close()
        for ns, address, mac in ((link.near_ns, link.far4, link.far_mac),
                                 (link.far_ns, link.near4, link.near_mac)):
            ip("-n", ns, "neigh", "replace", address, "lladdr", mac, "nud", "permanent", "dev",
               link.name)

        near_agent, far_agent, *listeners = (
            stack.enter_context(Agent(ns, groups=groups))
            for groups in ((), (p.NOTIFICATION,)) for ns in (link.near_ns, link.far_ns))
        near = End(near_agent, link.near4, link.far4, 0, FAR, chosen)
        far = End(far_agent, link.far4, link.near4, FAR, 0, chosen)
        ends = (near, far)
        for end in ends:
            end.receive()
        for end in ends:
            end.transmit()
        watcher = Watcher(link.near_ns, link.name, chosen.period)
        stack.callback(watcher.sock.close)
        near.agent.request(p.TX_PATH_READY, p.tx_path_ready())
        wait_until(lambda: all(s.num_received for end in ends for s in end.stats()[1].values()),
                   "packet in every session")
        for end in ends:
            end.receive(p.TIMER_ACTIVE)

        detection_ms = chosen.multiplier * chosen.period
        stop = min(detection_ms / 100, chosen.seconds / 2)  # ten detection times, if the run allows
        print(f"{chosen.sessions} sessions between two namespaces, every {chosen.period} ms in "
              f"both directions, detection after {detection_ms} ms; "
              f"{chosen.seconds:.0f} s with {len(os.sched_getaffinity(0))} processors hogged"
              f"{', kelmd --realtime' if chosen.realtime else ''}, agents stopped for {stop:.1f} s")
        dumper = Dumper(link.near_ns)
        reported = soak(watcher, listeners, dumper, chosen.seconds, stop)
        overlooked = watcher.overlooked()

        missing = lost(ends)
        sent = [s for end in ends for s in end.stats()[0].values()]
        received = [s for end in ends for s in end.stats()[1].values()]
        timeouts = sum(s.num_timeout for s in received)
        errors = sum(s.num_tx_errors for s in sent)
        print(f"false failures: {timeouts} counted, {len(reported)} reported {reported[:10] or ''}")
        print(f"datagrams lost: {sum(missing.values())} in {len(missing)} sessions, of "
              f"{sum(s.num_sent for s in sent)} sent ({errors} could not be sent)")
        print_lateness(watcher.lateness)
        if overlooked:
            print(f"  {overlooked} packets went by unseen, and made others look late")
        print_intervals(sent)
        print(f"dumps of everything meanwhile: {dumper.dumps}")
        kelmd.check()
    return 1 if chosen.judge and (timeouts or reported or missing) else 0


if __name__ == "__main__":
    sys.exit(main())
