# SPDX-License-Identifier: GPL-2.0
"""Whatever an agent or the wire says, nobody else suffers, and nothing is left of it."""

import contextlib
import errno
import os
import random
import socket
import struct

import pytest

from lib import PATIENCE, bfd, wait_until
from lib import protocol as p
from lib.agent import KERNEL, Agent, _connect
from lib.bfd import Bfd

SEED = int(os.environ.get("KELM_SEED", "20"))
INTERESTING = (0, 1, 7, 8, 15, 16, 19, 20, 24, 28, 127, 128, 255, 256, 0x7FFF, 0x8000, 0xFFFF,
               0x7FFFFFFF, 0x80000000, 0xFFFFFFE8, 0xFFFFFFF0, 0xFFFFFFFF)


def damaged(rng, data):
    """Some bytes, or a 16- or 32-bit word, or the length, are not what they were."""
    data = bytearray(data)
    for _ in range(rng.randint(1, 4)):
        size = rng.choice((1, 2, 4))
        if len(data) >= size:
            at = rng.randrange(0, len(data) - size + 1)
            value = rng.choice(INTERESTING) if rng.random() < 0.7 else rng.getrandbits(32)
            order = rng.choice(("little", "big"))
            data[at:at + size] = (value & (1 << 8 * size) - 1).to_bytes(size, order)
    cut = rng.random()
    if cut < 0.2:
        del data[rng.randint(0, len(data)):]
    elif cut < 0.3:
        data += rng.randbytes(rng.randint(1, 300))
    return bytes(data)


@pytest.fixture
def witness(namespaces):
    """A session in a namespace of its own: when a test is done, it has to work as ever."""
    link = namespaces.link(n=9)
    with Agent(link.near_ns, groups=[p.CONTROL, p.NOTIFICATION]) as agent:
        agent.request(p.TX_PATH_READY, p.tx_path_ready())
        agent.request(p.RX_SET_SESSION, p.rx_set_session(98, flags=p.TIMER_ACTIVE, multiplier=255,
                                                         period=10_000_000))
        yield agent
        agent.request(p.TX_SET_PACKET, p.tx_set_packet(
            99, link.packet(Bfd(my_disc=99).pack()), period=50_000))
        agent.request(p.RX_SET_SESSION, p.rx_set_session(99))
        link.collect(3, 99)
        link.send(Bfd(your_disc=99))
        assert agent.event(p.RX_PACKET_CHANGE, 99)
        assert agent.stats(99)[1].num_received == 1
        assert agent.event(timeout=0.01) is None, "nothing that concerns others"


def fuzz_agent(agent, rng, originals, count):
    for number in range(count):
        datagram = damaged(rng, rng.choice(originals))
        agent.sock.settimeout(PATIENCE)
        if len(datagram) not in ((0,) if KERNEL else (0, 12)):  # refused; and a bind packet
            agent.send(datagram)
        if number % 16 == 15:
            with contextlib.suppress(TimeoutError, OSError):
                while True:
                    agent.sock.settimeout(0.001)
                    agent.sock.recv(1 << 20)


def test_damaged_messages(link, witness):
    rng = random.Random(SEED)
    section = bfd.auth_section(bfd.KEYED_SHA1, secret=b"x" * 20)
    plain, signed = link.packet(Bfd().pack()), link.packet(Bfd(auth=section).pack())
    frame = bfd.ethernet(link.far_mac, link.near_mac, plain)
    originals = [
        p.message(p.TX_SET_PACKET, p.tx_set_packet(1, plain, period=3_000_000)),
        p.message(p.TX_SET_PACKET, p.tx_set_packet(2, signed, auth_type=4, auth_hdr=section)),
        p.message(p.TX_SET_PACKET, p.tx_set_packet(
            3, frame, type=p.TX_L2, ip_hdr_offset=14, latch_offset=42, flags=3)),
        p.message(p.RX_SET_SESSION, p.rx_set_session(
            1, flags=3, period=5_000, latch=(1, 2, 3), failure=p.failure_message(1))),
        p.message(p.RX_DELETE_SESSION, struct.pack("=I", 1)),
        p.message(p.TX_DELETE_PACKET, struct.pack("=I", 1)),
        p.message(p.GET_STATS, p.get_stats(0, 15)), p.message(p.GET_STATS, p.get_stats(1)),
        p.message(p.SYNC, p.sync(0)), p.message(p.SET_DEBUG_LEVEL, p.set_debug_level(5, 1)),
    ]
    originals.append(b"".join(originals))
    with Agent(link.near_ns) as agent:
        fuzz_agent(agent, rng, originals, 4000)
    with Agent() as agent:
        agent.request(p.SET_SESSION_STATS_INTERVAL, p.stats_interval(0))
        agent.request(p.SET_DEBUG_LEVEL, p.set_debug_level(0, 1))


def test_damaged_datagrams_from_the_wire(link, witness):
    rng = random.Random(SEED)
    with Agent(link.near_ns) as agent:
        for disc, type in ((5, 0), (6, bfd.PASSWORD), (7, bfd.METICULOUS_SHA1), (8, 255)):
            agent.request(p.RX_SET_SESSION, p.rx_set_session(
                disc, flags=p.RX_MYDISC_RTT | p.TIMER_ACTIVE, multiplier=255, period=1_000_000,
                auth=p.auth_config(type=type), keys=[p.auth_key(b"secret", 1)]))
        originals = [Bfd(your_disc=5).pack(), bfd.signed(Bfd(your_disc=6), bfd.PASSWORD),
                     bfd.signed(Bfd(your_disc=7), bfd.METICULOUS_SHA1),
                     bfd.signed(Bfd(your_disc=8), bfd.DEBUG_SEQNUM)]
        before = agent.module_stats().rfc_drops
        for number in range(6000):
            payload = damaged(rng, rng.choice(originals))
            link.send(payload, rng.choice((4, 6)), dport=rng.choice(list(p.RX_PORTS.values())))
            if number % 100 == 99:
                agent.stats()
        wait_until(lambda: agent.module_stats().rfc_drops > before + 1000, "drops")
        # Whole frames too: IP and UDP headers that lie.
        for _ in range(2000):
            frame = link.send(rng.choice(originals), rng.choice((4, 6)))
            link.wire.send(frame[:14] + damaged(rng, frame[14:])[:1480])
        agent.stats()


def test_agents_that_never_read(link, witness):
    """They learn of what they have missed, should they read after all."""
    with contextlib.ExitStack() as stack:
        for _ in range(5):
            agent = stack.enter_context(Agent(link.near_ns, groups=[p.CONTROL, p.NOTIFICATION]))
            for disc in range(1, 100):
                agent.send(p.message(p.RX_SET_SESSION, p.rx_set_session(disc)))
            agent.sock.settimeout(0.5)
            # Dumps nobody reads, until there is no more room for requests either.
            with contextlib.suppress(TimeoutError, OSError):
                for _ in range(2000):
                    agent.send(p.message(p.GET_STATS, p.get_stats(flags=15 & ~p.STATS_NO_REPORT)))
        other = stack.enter_context(Agent(link.near_ns))

        def more_than_a_queue_holds():
            for _ in range(100):
                link.send(Bfd(your_disc=4711).pack().ljust(1400, b"\0"))
            return other.module_stats().num_invalid_sessions > (500 if KERNEL else 5000)

        wait_until(more_than_a_queue_holds, "messages about as many datagrams", poll=0)
        try:
            while agent.receive()[0].type != p.NLMSG_OVERRUN:
                pass
        except OSError as error:  # netlink's own way of telling
            assert KERNEL and error.errno == errno.ENOBUFS


@pytest.mark.kelmd
def test_connections_that_break_the_rules(host, link, witness):
    """No bind packet first, one of a wrong size, of another family, nothing at all."""
    def descriptors():
        return len(os.listdir(f"/proc/{host.process.pid}/fd"))

    before = descriptors()
    bind = struct.pack("=HHII", socket.AF_NETLINK, 0, 0, 0)
    first = [p.message(p.TX_PATH_READY, p.tx_path_ready()), bind[:11], bind + b"x", b"", b"x" * 12,
             struct.pack("=HHII", 0, 0, 0, 0), struct.pack("=HHII", 16, 0xFFFF, 0xFFFFFFFF,
                                                           0xFFFFFFFF), bytes(200_000)]
    sockets = []
    for data in first * 3 + [None] * 50:
        sockets.append(_connect(link.near_ns))
        if data is not None:
            with contextlib.suppress(OSError):
                sockets[-1].send(data)
    with Agent(link.near_ns) as agent:
        agent.request(p.TX_PATH_READY, p.tx_path_ready())
    for sock in sockets:
        sock.close()
    wait_until(lambda: descriptors() <= before, "descriptors released")


@pytest.mark.kelmd  # a kernel handles requests in the sender's own time
def test_a_flood_of_requests_delays_nobody_for_long(link, witness):
    with Agent(link.near_ns) as flooder, Agent(link.near_ns) as other:
        flooder.sock.setblocking(False)
        for _ in range(60):
            with contextlib.suppress(BlockingIOError):
                while True:
                    flooder.send(p.message(p.RX_SET_SESSION, p.rx_set_session(5), flags=1))
            other.request(p.TX_PATH_READY, p.tx_path_ready())


@pytest.mark.stalls_below(5.0)
def test_a_flood_of_datagrams_delays_no_detection(link, witness):
    """Sessions with packets stay up and those without fail, whatever else arrives."""
    with Agent(link.near_ns, groups=[p.NOTIFICATION]) as agent:
        for disc in (5, 6):
            agent.request(p.RX_SET_SESSION, p.rx_set_session(
                disc, flags=p.TIMER_ACTIVE, multiplier=100 if disc == 5 else 10, period=100_000,
                failure=p.failure_message(disc)))
        junk = b"\x20" * 24

        def flood():
            for number in range(200):
                link.send(Bfd(your_disc=5) if number % 20 == 0 else junk)
            return agent.event(p.SESSION_FAILURE, 6, timeout=0.001)

        wait_until(flood, "failure of the silent session", poll=0)
        assert agent.event(p.SESSION_FAILURE, 5, timeout=0.001) is None
