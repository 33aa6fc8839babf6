# SPDX-License-Identifier: GPL-2.0
"""Network namespaces, the links between them, and what is on the wire."""

import contextlib
import itertools
import socket
import struct
import subprocess
import time

from . import PATIENCE, bfd, netns, rtnetlink
from .netns import in_namespace, sysctl

_SO_TIMESTAMPNS = 35
_ETH_P_ALL = 3
_PACKET_OUTGOING = 4


def ip(*arguments):
    subprocess.run(["ip", *map(str, arguments)], check=True)


def ip_batch(namespace, commands):
    """Several at once, a line each."""
    subprocess.run(["ip", "-n", namespace, "-batch", "-"], input=commands, text=True, check=True)


class Wire:
    """One interface as a BFD peer uses it: frames in and out, with the kernel's time stamps."""

    def __init__(self, namespace, interface):
        with in_namespace(namespace):
            self.sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(_ETH_P_ALL))
        self.sock.setsockopt(socket.SOL_SOCKET, _SO_TIMESTAMPNS, 1)
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 8 << 20)
        self.sock.bind((interface, _ETH_P_ALL))

    def close(self):
        self.sock.close()

    def send(self, frame):
        self.sock.send(frame)

    def drain(self):
        """Forgets what has arrived so far."""
        self.sock.setblocking(False)
        with contextlib.suppress(BlockingIOError):
            while True:
                self.sock.recv(65536)

    def receive(self, wanted=lambda frame: True, timeout=PATIENCE):
        """The next UDP datagram that came in and is wanted, or None in the given time."""
        deadline = time.monotonic() + timeout
        while (left := deadline - time.monotonic()) > 0:
            self.sock.settimeout(left)
            try:
                data, ancillary, _, address = self.sock.recvmsg(65536, 64)
            except TimeoutError:
                return None
            if address[2] == _PACKET_OUTGOING:
                continue
            seconds, nanoseconds = struct.unpack("qq", ancillary[0][2])
            frame = bfd.parse_frame(data, seconds + nanoseconds / 1e9)
            if frame and wanted(frame):
                return frame
        return None

    def collect(self, count, wanted=lambda frame: True, timeout=PATIENCE):
        frames = []
        while len(frames) < count:
            frame = self.receive(wanted, timeout)
            assert frame, f"{len(frames)} of {count} packets came within {timeout} s"
            frames.append(frame)
        return frames


class Link:
    """
        namespace near                     namespace far
      +------------------+              +------------------+
      | kelm's sessions  |              | the peer: Wire   |
      |          eth<n> -+--------------+- eth<n>          |
      |   10.0.n.1       |     veth     |       10.0.n.2   |
      |   fd00:m::1      |              |       fd00:m::2  |
      +------------------+              +------------------+
    """

    def __init__(self, near, far, n=0):
        self.near_ns, self.far_ns, self.name = near, far, f"eth{n}"
        self.near4, self.far4 = f"10.0.{n}.1", f"10.0.{n}.2"
        self.near6, self.far6 = f"fd00:{n + 1}::1", f"fd00:{n + 1}::2"
        self.near_mac, self.far_mac = f"02:00:00:00:0{n}:01", f"02:00:00:00:0{n}:02"
        rtnetlink.add_veth(self.name, (near, self.near_mac), (far, self.far_mac))
        self.near_ifindex = self.set_up("near")
        self.set_up("far")
        self.wire = Wire(far, self.name)

    def _end(self, side):
        """(namespace, own addresses, peer's addresses, peer's MAC address)"""
        near, far = (self.near4, self.near6), (self.far4, self.far6)
        return (self.near_ns, near, far, self.far_mac) if side == "near" else \
            (self.far_ns, far, near, self.near_mac)

    def session(self, side="near", version=4, **keys):
        """As the configuration of kelm-agent at this end has it."""
        namespace, own, peers, _ = self._end(side)
        return {"name": "s", "namespace": namespace, "interface": self.name,
                "local": own[version == 6], "peer": peers[version == 6], **keys}

    def set_up(self, side):
        """The interface as it is when new, or after changes; returns its index. Its neighbours are
        known, so that no test waits for their discovery, and it has no address of its own."""
        namespace, own, peers, peer_mac = self._end(side)
        where = namespace, self.name
        sysctl(namespace, **{f"ipv6__conf__{self.name}__addr_gen_mode": 1})
        for address, prefix in zip(own, (24, 64)):
            rtnetlink.replace_address(*where, address, prefix)
        rtnetlink.set_link(*where, True)
        for peer in peers:
            rtnetlink.replace_neighbour(*where, peer, peer_mac)
        return rtnetlink.ifindex(*where)

    def close(self):
        self.wire.close()

    def addresses(self, version):
        """(near, far)"""
        return (self.near4, self.far4) if version == 4 else (self.near6, self.far6)

    def packet(self, payload, version=4, **options):
        """What kelm is to send over this link: the IP datagram."""
        near, far = self.addresses(version)
        return bfd.ip_datagram(near, far, payload, **options)

    def send(self, payload, version=4, **options):
        """The peer sends; returns the frame."""
        near, far = self.addresses(version)
        if isinstance(payload, bfd.Bfd):
            payload = payload.pack()
        frame = bfd.ethernet(self.near_mac, self.far_mac,
                             bfd.ip_datagram(far, near, payload, **options))
        self.wire.send(frame)
        return frame

    def receive(self, my_disc=None, timeout=PATIENCE):
        """The next packet that kelm sent to the peer, from a discriminator if given."""
        return self.wire.receive(self._from(my_disc), timeout)

    def collect(self, count, my_disc=None):
        return self.wire.collect(count, self._from(my_disc))

    def _from(self, my_disc):
        return lambda f: f.src in (self.near4, self.near6) and my_disc in (None, f.bfd.my_disc)

    def exists(self):
        """Whether the near namespace still does: the far end goes with it."""
        with in_namespace(self.far_ns):
            return self.name in (name for _, name in socket.if_nameindex())

    def set(self, state, side="near"):
        """Up or down."""
        rtnetlink.set_link(self._end(side)[0], self.name, state == "up")

    def lose(self, version=4, side="near"):
        """Packets from this side get lost from now on, those to it do not."""
        namespace, _, peers, _ = self._end(side)
        rtnetlink.replace_neighbour(namespace, self.name, peers[version == 6], "02:00:00:00:ff:ff")


class Namespaces:
    """Makes namespaces for one test and takes them down after it."""

    _numbers = itertools.count(1)

    def __init__(self, host):
        self.host, self.names, self.links = host, [], []

    def add(self, name=None, wait=True, up=True):
        """Returns its name; waits for kelm to serve it."""
        name = name or f"kelm-e2e-{next(self._numbers)}"
        netns.add(name)
        self.names.append(name)
        if up:
            rtnetlink.set_link(name, "lo", True)
        if wait:
            self.host.wait_for_vrf(name)
        return name

    def delete(self, name):
        netns.delete(name)
        self.names.remove(name)

    def link(self, near=None, far=None, n=0):
        self.links.append(Link(near or self.add(), far or self.add(wait=False), n))
        return self.links[-1]

    def close(self):
        for link in self.links:
            link.close()
        for name in list(self.names):
            self.delete(name)
