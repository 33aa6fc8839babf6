# SPDX-License-Identifier: GPL-2.0
"""A BFD agent's end of the agent protocol, over netlink or over kelmd's socket."""

import errno
import os
import pickle
import socket
import struct
import time

from . import PATIENCE, protocol
from .bfd import Bfd
from .protocol import KelmError
from .netns import in_namespace

KERNEL = os.environ.get("KELM_HOST", "kelmd") == "kernel"
UNIT = 31
KELMD_SOCKET = "\0kelm-netlink-31"


def _connect(namespace):
    with in_namespace(namespace):
        if KERNEL:
            return socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, UNIT)
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        try:
            sock.connect(KELMD_SOCKET)
        except OSError:
            sock.close()
            raise
        return sock


class Agent:
    """One netlink socket of unit 31, or what stands for it. Groups are numbers, not bits."""

    def __init__(self, namespace=None, *, pid=0, groups=(), sock=None):
        """Opens a socket in the namespace, or takes one over that somebody else has opened."""
        self.sock = sock or _connect(namespace)
        self.sock.settimeout(PATIENCE)
        self.pid, self.seq = 0, 0
        self.backlog = []
        try:
            self.bind(pid, groups)
        except OSError:
            self.close()
            raise

    def bind(self, pid=0, groups=()):
        """Takes a port id and groups; afterwards pid and groups are what was granted."""
        mask = sum(1 << group - 1 for group in groups)
        if KERNEL:
            self.sock.bind((pid or self.sock.getsockname()[0], mask))
            self.pid, mask = self.sock.getsockname()
        else:
            self.sock.send(struct.pack("=HHII", socket.AF_NETLINK, 0, pid, mask))
            answer = self.sock.recv(1 << 20)
            while len(answer) > 12:  # an event, or an answer to an earlier request
                self.backlog += protocol.parse(answer)
                answer = self.sock.recv(1 << 20)
            assert len(answer) == 12, f"a bind packet was answered with {len(answer)} bytes"
            family, _, self.pid, mask = struct.unpack("=HHII", answer)
            assert family == socket.AF_NETLINK
            if self.pid == 0:
                assert self.sock.recv(65536) == b"", "kelmd closes after refusing a port id"
                raise OSError(errno.EADDRINUSE, "port id taken")
        self.groups = {bit + 1 for bit in range(32) if mask >> bit & 1}

    def close(self):
        self.sock.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def send(self, datagram):
        self.sock.send(datagram)

    def receive(self, timeout=PATIENCE):
        """The messages of the next datagram."""
        self.sock.settimeout(timeout)
        datagram = self.sock.recv(1 << 20)
        if not datagram:
            raise ConnectionResetError("kelm closed the connection")
        return protocol.parse(datagram)

    def _next_of(self, seq):
        """The next datagram that answers the request; events met on the way are kept."""
        while True:
            messages = self.receive()
            if any(m.seq == seq and m.pid == self.pid for m in messages):
                return messages
            self.backlog += messages

    def request(self, type, body=b"", flags=protocol.NLM_F_ACK):
        """Sends a request and waits for its acknowledgement; returns what came before it."""
        self.seq += 1
        self.send(protocol.message(type, body, protocol.NLM_F_REQUEST | flags, self.seq, self.pid))
        answers = []
        while True:
            for msg in self._next_of(self.seq):
                if msg.type == protocol.NLMSG_ERROR:
                    error = struct.unpack_from("=i", msg.body)[0]
                    if error:
                        raise KelmError(-error)
                    return answers
                answers.append(msg)

    def start_dump(self, type, body):
        self.seq += 1
        self.send(protocol.message(type, body, protocol.NLM_F_REQUEST, self.seq, self.pid))
        return self.seq

    def finish_dump(self, seq):
        """The datagrams of a dump, each a list of messages, without the final NLMSG_DONE."""
        datagrams = []
        while True:
            messages = self._next_of(seq)
            for msg in messages:
                if msg.type == protocol.NLMSG_ERROR:
                    raise KelmError(-struct.unpack_from("=i", msg.body)[0])
                assert (msg.seq, msg.pid) == (seq, self.pid)
            last = messages[-1]
            if last.type == protocol.NLMSG_DONE:
                assert last.flags & protocol.NLM_F_MULTI
                return datagrams + [messages[:-1]] if messages[:-1] else datagrams
            datagrams.append(messages)

    def dump(self, type, body):
        datagrams = self.finish_dump(self.start_dump(type, body))
        return [protocol.decode(m) for datagram in datagrams for m in datagram]

    def stats(self, disc=0, flags=0):
        """Statistics: one session's reply, or a dump."""
        if disc and not flags:
            return [protocol.decode(m) for m in
                    self.request(protocol.GET_STATS, protocol.get_stats(disc))]
        return self.dump(protocol.GET_STATS, protocol.get_stats(disc, flags))

    def module_stats(self):
        return self.stats(flags=protocol.STATS_MODULE)[-1]

    def event(self, type=None, disc=None, timeout=PATIENCE):
        """The next multicast, of this type and discriminator if given; None if there is none."""
        deadline = time.monotonic() + timeout
        while True:
            for msg in self.backlog:
                if type in (None, msg.type) and \
                        disc in (None, struct.unpack_from("=I", msg.body)[0]):
                    self.backlog.remove(msg)
                    return msg
            try:
                self.backlog += self.receive(max(deadline - time.monotonic(), 0.001))
            except TimeoutError:
                return None

    def events_until(self, is_last, timeout=PATIENCE):
        """All multicasts up to the one that is_last accepts, which is left out."""
        events = []
        while True:
            msg = self.event(timeout=timeout)
            assert msg, f"the last event did not come; before it: {events}"
            if is_last(msg):
                return events
            events.append(msg)


def discriminators(namespace):
    """Those of all sessions; none where kelm does not serve the namespace."""
    try:
        with Agent(namespace) as admin:
            return {m.disc for m in admin.dump(protocol.SYNC, protocol.sync())}
    except ConnectionRefusedError:
        return set()


def start_session(link, disc=7):
    """A packet and a session at the near end that are never idle."""
    with Agent(link.near_ns) as agent:
        agent.request(protocol.TX_PATH_READY, protocol.tx_path_ready())
        agent.request(protocol.TX_SET_PACKET, protocol.tx_set_packet(
            disc, link.packet(Bfd(my_disc=disc).pack()), period=5_000, latch_period=5_000))
        agent.request(protocol.RX_SET_SESSION, protocol.rx_set_session(
            disc, flags=protocol.TIMER_ACTIVE, period=10_000, latch=(disc,),
            failure=protocol.failure_message(disc)))


def in_child(become, action):
    """Runs action in a child process that has become another; returns or raises as it did."""
    reader, writer = os.pipe()
    child = os.fork()
    if child == 0:
        try:
            become()
            outcome = (True, action())
        except BaseException as error:  # the parent raises it
            outcome = (False, error)
        os.write(writer, pickle.dumps(outcome))
        os._exit(0)
    os.close(writer)
    with os.fdopen(reader, "rb") as pipe:
        good, result = pickle.load(pipe)
    os.waitpid(child, 0)
    if not good:
        raise result
    return result
