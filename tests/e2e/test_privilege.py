# SPDX-License-Identifier: GPL-2.0
"""Who may do what: the network administration capability, of the opener and of the sender."""

import contextlib
import errno
import os
import re
import signal
import socket
import struct

import pytest

from lib import PATIENCE, wait_until
from lib import protocol as p
from lib.agent import KERNEL, Agent, in_child
from lib.protocol import KelmError
from lib.netns import enter, unshare_user

NOBODY = 65534

def become_nobody():
    os.setgroups([])
    os.setresgid(NOBODY, NOBODY, NOBODY)
    os.setresuid(NOBODY, NOBODY, NOBODY)


def expect_refusals(agent):
    """A guarded request is refused, others are not."""
    with pytest.raises(KelmError) as refused:
        agent.request(p.RX_SET_SESSION, p.rx_set_session(7))
    assert refused.value.errno == errno.EPERM
    agent.request(p.TX_PATH_READY, p.tx_path_ready())
    agent.dump(p.GET_STATS, p.get_stats())


@pytest.mark.parametrize("lower", [become_nobody, unshare_user])
def test_an_ordinary_user_may_look_but_not_change(link, lower):
    """Nor may root of a user namespace. Neither gets groups."""
    def become():
        enter(link.near_ns)
        lower()

    def look_around():
        with Agent() as agent:
            expect_refusals(agent)
        try:
            with Agent(groups=[p.CONTROL]) as agent:
                return agent.groups
        except PermissionError:
            assert KERNEL  # netlink refuses the bind
            return set()

    assert in_child(become, look_around) == set()


def test_the_sender_counts(link):
    """A socket that root has opened does not make root of whoever sends on it."""
    with Agent(link.near_ns) as agent:
        in_child(become_nobody, lambda: expect_refusals(agent))
        agent.request(p.RX_SET_SESSION, p.rx_set_session(7))


@contextlib.contextmanager
def stopped(process):
    process.send_signal(signal.SIGSTOP)
    try:
        yield
    finally:
        process.send_signal(signal.SIGCONT)


def effective_user(pid):
    with open(f"/proc/{pid}/status") as status:
        return int(re.search(r"Uid:\t\d+\t(\d+)", status.read())[1])


@pytest.mark.kelmd
def test_a_program_with_more_privilege_lends_none(host, link):
    """What an ordinary user has sent does not gain by a set-user-ID program that it then runs."""
    with Agent(link.near_ns) as root:
        ours, theirs = socket.socketpair()
        password_reader, password = os.pipe()
        child = os.fork()
        if child == 0:
            try:
                os.close(password)
                os.dup2(password_reader, 0)
                enter(link.near_ns)
                become_nobody()
                with Agent() as agent:
                    socket.send_fds(theirs, [b"x"], [agent.sock.fileno()])
                    theirs.recv(1)
                    agent.send(p.message(p.RX_SET_SESSION, p.rx_set_session(7),
                                         p.NLM_F_REQUEST | p.NLM_F_ACK, 1))
                    os.execlp("su", "su", "root")  # waits for the password
            finally:
                os._exit(1)
        os.close(password_reader)
        _, (fd,), _, _ = socket.recv_fds(ours, 1, 1)
        with socket.socket(fileno=fd) as sock:
            sock.settimeout(PATIENCE)
            with stopped(host.process):
                ours.send(b"x")
                wait_until(lambda: effective_user(child) == 0, "su as root")
            (answer,) = p.parse(sock.recv(65536))
            assert effective_user(child) == 0
        os.close(password)
        os.waitpid(child, 0)
        assert answer.type == p.NLMSG_ERROR
        assert struct.unpack_from("=i", answer.body)[0] == -errno.EPERM
        assert root.stats() == []


@pytest.mark.parametrize("opener_lives", [True, False])
def test_the_opener_counts(link, opener_lives):
    """Nor does root, by sending on somebody else's socket, lend its privilege to it."""
    ours, theirs = socket.socketpair()
    child = os.fork()
    if child == 0:
        ours.close()
        enter(link.near_ns)
        become_nobody()
        with Agent() as agent:
            socket.send_fds(theirs, [b"x"], [agent.sock.fileno()])
            theirs.recv(1)
        os._exit(0)
    theirs.close()
    with ours:
        _, (fd,), _, _ = socket.recv_fds(ours, 1, 1)
        if not opener_lives:
            ours.close()
            os.waitpid(child, 0)
        with Agent(sock=socket.socket(fileno=fd)) as agent:
            expect_refusals(agent)
    if opener_lives:
        os.waitpid(child, 0)


@pytest.mark.kelmd
def test_descriptors_sent_along_hold_nobody_up(host, link):
    """The last end of a TCP connection that lingers for data nobody takes."""
    with socket.create_server(("127.0.0.1", 0)) as server, contextlib.ExitStack() as stack:
        lingering = []
        for _ in range(4):
            sock = socket.create_connection(server.getsockname())
            stack.enter_context(server.accept()[0])
            sock.setblocking(False)
            with contextlib.suppress(BlockingIOError):
                while True:
                    sock.send(bytes(1 << 16))
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 60))
            lingering.append(sock)
        with Agent(link.near_ns) as agent:
            senders = [stack.enter_context(Agent(link.near_ns)) for _ in lingering]
            os.kill(host.process.pid, signal.SIGSTOP)  # the last to close them is to be kelmd
            for sender, sock in zip(senders, lingering):
                socket.send_fds(sender.sock, [bytes(20)], [sock.fileno()])
                sock.close()
            os.kill(host.process.pid, signal.SIGCONT)
            agent.request(p.TX_PATH_READY, p.tx_path_ready())
        for sender in senders:
            with pytest.raises(ConnectionResetError):
                sender.sock.recv(1)
