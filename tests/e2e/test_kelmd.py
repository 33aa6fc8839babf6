# SPDX-License-Identifier: GPL-2.0
"""kelmd as a program: it starts, explains why it cannot, ends, and leaves nothing behind."""

import contextlib
import ctypes
import errno
import os
import pathlib
import re
import resource
import signal
import socket
import subprocess
import time

import pytest

from lib import PATIENCE, wait_until
from lib import protocol as p
from lib.agent import Agent, in_child
from lib.bfd import Bfd
from lib.host import KELMD, Kelmd
from lib.netns import enter, in_namespace
from lib.protocol import KelmError
from lib.topology import Namespaces

CAP_IPC_LOCK, CAP_SYS_MODULE, CAP_SYS_NICE, PR_CAPBSET_DROP = 14, 16, 23, 24
SYS_PIDFD_GETFD, SCHED_DEADLINE = 438, 6
NOBODY = 65534
PTRACE_SEIZE, PTRACE_INTERRUPT, PTRACE_DETACH, WALL = 0x4206, 0x4207, 17, 0x40000000

pytestmark = pytest.mark.kelmd


def run(*arguments, **options):
    return subprocess.run([KELMD, *arguments], capture_output=True, text=True, timeout=PATIENCE,
                          **options)


def sockets_here():
    """What is bound in this namespace: ports, the agents' name, and raw and packet sockets."""
    found = []
    for table in ("udp", "udp6", "raw", "raw6", "packet"):
        with open(f"/proc/net/{table}") as lines:
            found += lines.read().splitlines()[1:]
    with open("/proc/net/unix") as lines:
        found += [line for line in lines if "@kelm" in line]
    return found


@pytest.fixture
def namespaces():
    namespaces = Namespaces(None)
    yield namespaces
    namespaces.close()


@pytest.fixture
def link(namespaces):
    return namespaces.link(namespaces.add(wait=False), namespaces.add(wait=False))


def test_help_and_version():
    for option in ("--netns", "--realtime", "--help", "--version"):
        assert option in run("--help").stdout
    assert re.fullmatch(r"kelmd \d+\.\d+\.\d+\n", run("--version").stdout)


@pytest.mark.parametrize("arguments", [["--nonsense"], ["surplus"], ["--netns"]])
def test_wrong_usage(arguments):
    result = run(*arguments)
    assert result.returncode == 2 and re.match("kelmd: .*--help", result.stderr, re.DOTALL)


@pytest.mark.parametrize("ending", [signal.SIGTERM, signal.SIGINT])
def test_a_clean_end_leaves_nothing(link, ending):
    """With sessions, packets, agents and a dump that nobody reads."""
    host = Kelmd()
    host.wait_for_vrf(link.near_ns)
    with Agent(link.near_ns, groups=[p.CONTROL]) as agent, Agent() as other:
        agent.request(p.TX_PATH_READY, p.tx_path_ready())
        for disc in range(1, 300):
            agent.request(p.RX_SET_SESSION, p.rx_set_session(disc, flags=p.TIMER_ACTIVE,
                                                             period=5_000))
        agent.request(p.TX_SET_PACKET, p.tx_set_packet(7, link.packet(Bfd(my_disc=7).pack()),
                                                       period=5_000))
        other.start_dump(p.GET_STATS, p.get_stats(flags=p.STATS_ALL_VRFS))
        link.receive(7)
        assert other.sock.recv(1, socket.MSG_PEEK)  # it has begun
        host.stop(ending)
        assert other.receive()  # the part of the dump that was made
        with pytest.raises(ConnectionResetError):
            while True:
                agent.receive()
    assert sockets_here() == []


def test_a_killed_one_is_replaced(link):
    """Nothing that a kill leaves stands in the way, and namespaces end without anybody's help."""
    for _ in range(3):
        host = Kelmd()
        host.wait_for_vrf(link.near_ns)
        with Agent(link.near_ns) as agent:
            agent.request(p.RX_SET_SESSION, p.rx_set_session(7))
            assert len(agent.stats()) == 1, "a new kelmd knows nothing of the old one's sessions"
            host.kill()
    assert sockets_here() == []


def one_line(host):
    """The only line of a kelmd that could not start."""
    host.process.wait(PATIENCE)
    assert host.process.returncode not in (0, 2)
    (line,) = [line for line in host.log().splitlines()
               if not re.search("kelm (Rx|Netlink|Tx)", line)]
    return line


def test_a_second_one_says_who_is_first():
    host = Kelmd()
    line = one_line(Kelmd(ready=False))
    assert f"{host.process.pid}" in line and "kelmd" in line
    host.check()
    host.stop()


def test_a_taken_port_is_fatal_in_the_initial_namespace():
    with socket.socket(socket.AF_INET6, socket.SOCK_DGRAM) as holder:
        holder.bind(("::", 4784))
        line = one_line(Kelmd(ready=False))
        assert "4784" in line and f"{os.getpid()}" in line
    assert sockets_here() == []


def test_a_taken_port_elsewhere_is_waited_for(namespaces):
    name = namespaces.add(wait=False)
    with in_namespace(name):
        holder = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
    with holder:
        holder.bind(("::", 3784))
        host = Kelmd()
        wait_until(lambda: re.search(f"{name}.*3784", host.log()), "warning")
        with pytest.raises(ConnectionRefusedError):
            Agent(name)
    host.wait_for_vrf(name)
    host.stop()


def test_without_privilege(namespaces):
    line = one_line(Kelmd(ready=False, user=65534, group=65534))
    assert "CAP_NET_RAW" in line


def test_chosen_namespaces(namespaces):
    chosen, other = (namespaces.add(wait=False) for _ in range(2))
    host = Kelmd("--netns", chosen, "--netns", "to-come")
    host.wait_for_vrf(chosen)
    namespaces.add("to-come", wait=False, up=False)
    host.wait_for_vrf("to-come")
    with pytest.raises(ConnectionRefusedError):
        Agent(other)
    host.stop()


def sockets_of(process):
    """Duplicates of its sockets."""
    pidfd = os.pidfd_open(process.pid)
    for number in os.listdir(f"/proc/{process.pid}/fd"):
        if os.readlink(f"/proc/{process.pid}/fd/{number}").startswith("socket:"):
            fd = ctypes.CDLL(None).syscall(SYS_PIDFD_GETFD, pidfd, int(number), 0)
            with socket.socket(fileno=fd) as found:
                yield found
    os.close(pidfd)


def test_transmit_sockets():
    """The raw and packet sockets: 16 MiB of send buffer as the kernel counts, network control."""
    host = Kelmd()
    found = [(s.getsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF),
              s.getsockopt(socket.SOL_SOCKET, socket.SO_PRIORITY))
             for s in sockets_of(host.process) if s.type == socket.SOCK_RAW]
    assert found == [(16 << 20, 6)] * 3
    host.stop()


def softirq_thread(host):
    task = pathlib.Path(f"/proc/{host.process.pid}/task")
    (thread,) = [int(thread.name) for thread in task.iterdir()
                 if (thread / "comm").read_text() == "kelmd-softirq\n"]
    return thread


@contextlib.contextmanager
def held_up(thread):
    """One thread does not run."""
    ptrace = ctypes.CDLL(None, use_errno=True).ptrace
    ptrace.argtypes = [ctypes.c_long] * 4
    assert ptrace(PTRACE_SEIZE, thread, 0, 0) == 0, os.strerror(ctypes.get_errno())
    assert ptrace(PTRACE_INTERRUPT, thread, 0, 0) == 0
    os.waitpid(thread, WALL)
    yield
    assert ptrace(PTRACE_DETACH, thread, 0, 0) == 0


def test_systemd_is_told(tmp_path):
    """Of start and end; and the watchdog, while both threads run."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
        manager.bind(str(tmp_path / "notify"))
        manager.settimeout(PATIENCE)
        host = Kelmd(env={**os.environ, "NOTIFY_SOCKET": str(tmp_path / "notify"),
                          "WATCHDOG_USEC": "60000"})
        assert b"READY=1" in manager.recv(4096)
        manager.setblocking(False)

        def fed():
            """How often by now."""
            count = 0
            with contextlib.suppress(BlockingIOError):
                while True:
                    count += b"WATCHDOG=1" in manager.recv(4096)
            return count

        for thread in (host.process.pid, softirq_thread(host)):
            wait_until(fed, "a sign of life")
            with held_up(thread):
                fed()
                time.sleep(0.5)
                assert fed() <= 1, "more than the sign that was under way"
        wait_until(fed, "a sign of life again")
        host.stop()
        manager.settimeout(PATIENCE)
        while b"STOPPING=1" not in manager.recv(4096):
            pass


def test_a_log_that_nobody_reads_stops_nothing(link):
    """Not while kelmd runs, and not when it ends."""
    reader, writer = os.pipe()
    process = subprocess.Popen([KELMD], stderr=writer)
    os.close(writer)
    try:
        log = b""
        while b"kelmd: ready" not in log:
            log += os.read(reader, 4096)
        with Agent(link.near_ns) as agent:
            agent.request(p.SET_DEBUG_LEVEL, p.set_debug_level(0, 3))
            agent.request(p.RX_SET_SESSION, p.rx_set_session(7))
            for _ in range(3000):
                link.send(Bfd(your_disc=7))
            wait_until(lambda: agent.stats(7)[0].num_received == 3000, "every packet received")
        process.terminate()
        assert process.wait(PATIENCE) == 0
    finally:
        process.kill()
        process.wait()
        os.close(reader)


def is_sanitized():
    with open(KELMD, "rb") as program:
        return re.search(b"__[at]san_init", program.read()) is not None


def without_realtime():
    """As in a container that may not have it."""
    libc = ctypes.CDLL(None)
    for capability in (CAP_IPC_LOCK, CAP_SYS_NICE):
        assert libc.prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) == 0
    for limit in (resource.RLIMIT_MEMLOCK, resource.RLIMIT_RTPRIO):
        resource.setrlimit(limit, (0, 0))


def test_strict(link):
    """Ordinary users see the statistics of their namespace, and that is all."""
    host = Kelmd("--strict")
    host.wait_for_vrf(link.near_ns)

    def become_nobody():
        enter(link.near_ns)
        os.setresuid(NOBODY, NOBODY, NOBODY)

    def look_around():
        with Agent() as agent:
            agent.dump(p.GET_STATS, p.get_stats())
            with pytest.raises(KelmError) as refused:
                agent.request(p.TX_PATH_READY, p.tx_path_ready())
            return refused.value.errno
    assert in_child(become_nobody, look_around) == errno.EPERM
    with Agent(link.near_ns) as agent:
        agent.request(p.TX_PATH_READY, p.tx_path_ready())
    host.stop()


def confined():
    """To one processor: SCHED_DEADLINE is refused."""
    os.sched_setaffinity(0, {min(os.sched_getaffinity(0))})


@pytest.mark.parametrize("become", [None, confined, without_realtime])
def test_realtime(become):
    """The softirq thread has a real-time class, and memory is locked, or kelmd says why not."""
    host = Kelmd("--realtime", preexec_fn=become)
    log = host.log()
    policy = os.sched_getscheduler(softirq_thread(host))
    if "no real-time scheduling" in log:
        assert policy == os.SCHED_OTHER
    elif "using SCHED_FIFO" in log:
        assert policy == os.SCHED_FIFO
        assert become is confined or os.strerror(errno.EBUSY) in log or \
            os.cpu_count() > len(os.sched_getaffinity(0)), log
    else:
        assert policy == SCHED_DEADLINE
    assert become is not confined or policy != SCHED_DEADLINE or os.cpu_count() == 1
    assert become is not without_realtime or policy == os.SCHED_OTHER
    with open(f"/proc/{host.process.pid}/status") as file:
        status = file.read()
    locked = int(re.search(r"VmLck:\s+(\d+)", status)[1])
    assert int(re.search(r"CapPrm:\s+(\w+)", status)[1], 16) & 1 << CAP_SYS_MODULE == 0
    if not is_sanitized():  # a sanitizer does not let memory be locked
        assert (locked == 0) == ("CAP_IPC_LOCK" in host.log())
    with Agent():
        host.stop()
