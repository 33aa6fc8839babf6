# SPDX-License-Identifier: GPL-2.0
"""Ends in the kernel: of namespaces, of agents, and of the module that they all use."""

import array
import contextlib
import errno
import fcntl
import os
import random
import signal
import socket
import struct
import subprocess
import time
import traceback

import pytest

from lib import bfd, kernel, wait_until
from lib import protocol as p
from lib.agent import Agent, _connect, in_child, start_session
from lib.bfd import Bfd
from lib.netns import in_namespace, unshare_network, unshare_user
from lib.protocol import KelmError

pytestmark = pytest.mark.kernel

NOBODY = 65534
ALL_STATS = p.get_stats(flags=p.STATS_ALL_VRFS | p.STATS_MODULE)


def vrfs():
    with Agent() as agent:
        return sum(hasattr(stats, "rfc_drops") for stats in agent.dump(p.GET_STATS, ALL_STATS))


def send_sessions(agent, count):
    """A hundred in each datagram."""
    for first in range(1, count + 1, 100):
        agent.send(b"".join(
            p.message(p.RX_SET_SESSION, p.rx_set_session(disc), flags=p.NLM_F_REQUEST)
            for disc in range(first, min(first + 100, count + 1))))


def first_of_a_dump(agent):
    """Starts a dump that is longer than one datagram, and takes the first one."""
    seq = agent.start_dump(p.GET_STATS, ALL_STATS)
    assert agent.receive()[-1].type != p.NLMSG_DONE
    return seq


@contextlib.contextmanager
def process(action, *arguments):
    """Another process that does this until it is killed."""
    child = os.fork()
    if child == 0:
        try:
            action(*arguments)
        except BaseException:
            traceback.print_exc()
        os._exit(1)
    try:
        yield child
        ended = os.waitid(os.P_PID, child, os.WEXITED | os.WNOHANG | os.WNOWAIT)
        assert ended is None, "it ended by itself"
    finally:
        os.kill(child, signal.SIGKILL)
        os.waitpid(child, 0)


@pytest.fixture
def nothing_left(host):
    """In the end all vrfs that came have gone, with all that was in them."""
    def alone():
        return vrfs() == 1 and kernel.only_empty_vrfs(1)

    wait_until(lambda: vrfs() == 1, "end of other tests' namespaces")
    yield
    wait_until(alone, "end of the vrfs", timeout=60, poll=0.2)


# Namespaces


def set_loopback_up():
    SIOCSIFFLAGS, IFF_UP = 0x8914, 0x1
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        fcntl.ioctl(sock, SIOCSIFFLAGS, struct.pack("16sH22x", b"lo", IFF_UP))


def settle_in(namespace):
    """Many sessions, and one that talks to itself; if the namespace is there at this moment."""
    with contextlib.suppress(OSError), in_namespace(namespace):
        set_loopback_up()
        with Agent() as agent:
            send_sessions(agent, 150)
            packet = bfd.ip_datagram("127.0.0.1", "127.0.0.1", Bfd(your_disc=7).pack())
            agent.request(p.TX_SET_PACKET, p.tx_set_packet(7, packet, period=20_000))
            agent.request(p.RX_SET_SESSION, p.rx_set_session(
                7, flags=p.TIMER_ACTIVE, period=10_000, latch=(7,)))


def test_namespaces_come_and_go_by_the_hundred(nothing_left, link):
    """While sessions run and dumps of all namespaces are under way, one of them a slow one."""
    start_session(link)
    names = [f"kelm-e2e-churn-{number}" for number in range(120)]
    alive = 10
    commands = []
    for number, name in enumerate(names):
        commands.append(f"netns add {name}")
        commands += [f"netns delete {names[number - alive]}"] * (number >= alive)
    commands += [f"netns delete {name}" for name in names[-alive:]]
    rng = random.Random(1)
    with Agent() as quick, Agent() as slow, \
            subprocess.Popen(["ip", "-batch", "-"], stdin=subprocess.PIPE, text=True) as churn:
        churn.stdin.write("\n".join(commands) + "\n")
        churn.stdin.close()
        rounds = 0
        while churn.poll() is None:
            under_way = slow.start_dump(p.GET_STATS, ALL_STATS)
            here = [name for name in os.listdir("/run/netns") if name in names]
            for name in rng.sample(here, min(2, len(here))):
                settle_in(name)
            quick.dump(p.GET_STATS, ALL_STATS)
            slow.finish_dump(under_way)
            rounds += 1
        assert churn.returncode == 0 and rounds > 3
    link.collect(20, 7)


def in_flight(sock):
    """The socket on its way between two others, and in no process; and these two."""
    ends = socket.socketpair(socket.AF_UNIX, socket.SOCK_DGRAM)
    ends[0].sendmsg([b"x"], [(socket.SOL_SOCKET, socket.SCM_RIGHTS,
                              array.array("i", [sock.fileno()]))])
    sock.close()
    return ends


def test_a_foreign_socket_keeps_its_namespace(nothing_left, link, namespaces):
    """Wherever it is: in a process outside, or on its way between two."""
    start_session(link)
    with in_namespace(link.near_ns):
        foreign = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    namespaces.delete(link.near_ns)
    link.collect(100, 7)
    ends = in_flight(foreign)
    link.collect(100, 7)
    assert link.exists()
    for end in ends:
        end.close()
    wait_until(lambda: not link.exists(), "end of the namespace")


def live_in_a_namespace_of_ones_own(user):
    if user:
        unshare_user()
    unshare_network()
    set_loopback_up()
    with Agent(groups=[p.CONTROL]) as agent:
        if not user:  # who is root only there may not change anything
            agent.request(p.TX_PATH_READY, p.tx_path_ready())
            packet = bfd.ip_datagram("127.0.0.1", "127.0.0.1", Bfd(your_disc=7).pack())
            agent.request(p.TX_SET_PACKET, p.tx_set_packet(7, packet, period=5_000))
            agent.event(p.RX_PACKET_CHANGE)
        agent.start_dump(p.GET_STATS, ALL_STATS)
        os.kill(os.getpid(), signal.SIGSTOP)


def test_namespaces_without_names(host, nothing_left):
    """A process is all that holds them, and it is killed."""
    before = vrfs()
    with contextlib.ExitStack() as stack:
        for number in range(4):
            child = stack.enter_context(process(live_in_a_namespace_of_ones_own, number % 2))
            _, status = os.waitpid(child, os.WUNTRACED)
            assert os.WIFSTOPPED(status)
        assert vrfs() == before + 4


# Agents


def die_in_mid_dump(namespace, type, body):
    with Agent(namespace, groups=[p.CONTROL, p.NOTIFICATION]) as agent:
        agent.start_dump(type, body)
        assert agent.receive()[-1].type != p.NLMSG_DONE
        os.kill(os.getpid(), signal.SIGKILL)


def test_agents_are_killed_in_mid_dump(nothing_left, link):
    with Agent(link.near_ns) as agent:
        send_sessions(agent, 1500)
        for number in range(20):
            dump = (p.SYNC, p.sync()) if number % 2 else (p.GET_STATS, ALL_STATS)
            child = os.fork()
            if child == 0:
                with contextlib.suppress(BaseException):
                    die_in_mid_dump(link.near_ns, *dump)
                os._exit(1)
            _, status = os.waitpid(child, 0)
            assert os.WIFSIGNALED(status) and os.WTERMSIG(status) == signal.SIGKILL
        assert len(agent.dump(p.SYNC, p.sync())) == 1500


def read_dump(agent, buffer, type, body):
    """How many messages there are in a dump that is read with such a buffer."""
    agent.start_dump(type, body)
    count = 0
    while True:
        datagram, _, flags, _ = agent.sock.recvmsg(buffer)
        assert not flags & socket.MSG_TRUNC
        messages = p.parse(datagram)
        count += len(messages)
        if messages[-1].type == p.NLMSG_DONE:
            return count - 1


def test_a_dump_fits_what_its_agent_reads_with(agent, link, kernel_log):
    """A single long message too; and a dump of nothing is done once."""
    with Agent(link.near_ns) as reader, in_namespace(link.near_ns), \
            socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        send_sessions(reader, 500)
        sender.sendto(Bfd(your_disc=5).pack().ljust(6000, b"\0"), ("127.0.0.1", 3784))
        assert agent.event(p.RX_PACKET_CHANGE, 5)
        for _ in range(2):
            assert read_dump(reader, 8192, p.GET_STATS, p.get_stats()) == 500
            assert read_dump(reader, 8192, p.SYNC, p.sync()) == 501
    agent.request(p.SET_DEBUG_LEVEL, p.set_debug_level(5, 2))
    assert agent.stats(5, flags=p.STATS_NO_REPORT | p.STATS_CLEAR) == []
    agent.request(p.SET_DEBUG_LEVEL, p.set_debug_level(5, 0))
    assert kernel_log.text().count("Dumping kelm getstats") == 1


# The module


def datagrams_to_every_port(link):
    for version in (4, 6):
        for port in p.RX_PORTS.values():
            link.send(Bfd(your_disc=7), version, dport=port)


def test_strict(unloaded_host):
    """The module's parameter: ordinary users see the statistics of their namespace, and no more."""
    unloaded_host.load(strict=1)

    def look_around():
        with Agent() as agent:
            agent.dump(p.GET_STATS, p.get_stats())
            with pytest.raises(KelmError) as refused:
                agent.request(p.TX_PATH_READY, p.tx_path_ready())
            return refused.value.errno
    assert in_child(lambda: os.setresuid(*[NOBODY] * 3), look_around) == errno.EPERM


def test_a_forced_unload_under_agents(host, link):
    """What agents had open ends with an error; after a new load even old sockets work."""
    start_session(link)
    with contextlib.ExitStack() as stack:
        reader, closer, late, subscriber = (
            stack.enter_context(Agent(link.near_ns, groups=groups))
            for groups in ((), (), (), (p.CONTROL, p.NOTIFICATION)))
        send_sessions(reader, 500)
        dump = first_of_a_dump(reader)
        first_of_a_dump(closer)
        first_of_a_dump(late)

        host.unload()
        assert kernel.sockets() == kernel.sockets(link.near_ns) == []
        assert kernel.threads() == 0
        datagrams_to_every_port(link)
        while (message := reader.receive()[-1]).type != p.NLMSG_DONE:
            assert message.seq == dump
        assert struct.unpack_from("=i", message.body)[0] == -errno.EOPNOTSUPP
        closer.close()
        for agent in (reader, subscriber):
            with pytest.raises(ConnectionRefusedError):
                agent.stats()
        with pytest.raises(OSError) as refused:
            Agent(link.near_ns)
        assert refused.value.errno == errno.EPROTONOSUPPORT

        host.load()
        assert kernel.sockets() == kernel.sockets(link.near_ns) == kernel.OF_A_VRF
        late.close()
        start_session(link)
        link.collect(5, 7)
        link.send(Bfd(your_disc=7))
        assert subscriber.event(p.RX_PACKET_CHANGE, 7)
        assert reader.stats(7)[1].num_received == 1


def pester(namespace):
    """Requests and dumps, some of which are left in the middle."""
    rng = random.Random(os.getpid())
    while True:
        with contextlib.suppress(OSError), contextlib.closing(_connect(namespace)) as sock:
            sock.bind((0, rng.randrange(4)))
            sock.setblocking(False)
            with contextlib.suppress(BlockingIOError):
                for type, body in ((p.RX_SET_SESSION, p.rx_set_session(rng.randrange(1, 400))),
                                   (p.SYNC, p.sync()), (p.GET_STATS, ALL_STATS)):
                    sock.send(p.message(type, body))
                for _ in range(rng.randrange(9)):
                    sock.recv(1 << 15)


def flood(link):
    while True:
        datagrams_to_every_port(link)
        time.sleep(0.002)


def test_forced_unloads_at_work(host, link):
    """With agents in the module, datagrams on their way to it and timers running."""
    with process(pester, link.near_ns), process(pester, link.near_ns), process(flood, link):
        for _ in range(3):
            start_session(link)
            link.collect(5, 7)
            host.unload()
            assert not host.loaded() and kernel.threads() == 0
            host.load()
    assert kernel.sockets(link.near_ns) == kernel.OF_A_VRF


def test_a_load_finds_the_namespaces_that_are_there(namespaces, kernel_log, unloaded_host):
    down, taken, single_stack = (namespaces.add(wait=False, up=False) for _ in range(3))
    link = namespaces.link(single_stack, namespaces.add(wait=False))
    with in_namespace(single_stack), open("/proc/sys/net/ipv6/bindv6only", "w") as only:
        only.write("1")  # which is no reason to do without BFD over IPv4
    with in_namespace(taken):
        other = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
        other.bind(("::", 4784))

    unloaded_host.load()
    assert kernel_log.text().count("Unable to create vrf") == 1
    for namespace in (None, link.far_ns, down, single_stack):
        assert kernel.sockets(namespace) == kernel.OF_A_VRF
    assert kernel.sockets(taken) == ["udp6:4784"]
    with Agent(taken) as agent, pytest.raises(ConnectionRefusedError):
        agent.stats()
    # Nor does the end of what was in the way bring a vrf.
    other.close()
    assert kernel.sockets(taken) == []

    with Agent(single_stack, groups=[p.CONTROL]) as agent:
        link.send(Bfd(your_disc=5))
        assert agent.event(p.RX_PACKET_CHANGE, 5)
    with Agent(down, groups=[p.CONTROL]) as agent:
        settle_in(down)
        assert agent.event(p.RX_PACKET_CHANGE, 7)
