# SPDX-License-Identifier: GPL-2.0
"""kelmctl top on a terminal, and how it leaves it; and what a shell completes."""

import contextlib
import fcntl
import json
import os
import pty
import select
import signal
import struct
import subprocess
import termios

import pytest

from lib import PATIENCE, wait_until
from lib.bfd import UP, Bfd
from lib.host import KELMCTL

ENTER, LEAVE = b"\x1b[?1049h", b"\x1b[?1049l"


class Terminal:
    """kelmctl on a terminal of its own."""

    def __init__(self, *words, columns=80, rows=24):
        self.master, self.slave = pty.openpty()
        self.resize(columns, rows)
        self.before = termios.tcgetattr(self.slave)
        self.output = b""
        self.process = subprocess.Popen([KELMCTL, *words], stdin=self.slave, stdout=self.slave,
                                        stderr=self.slave, process_group=0)

    def resize(self, columns, rows):
        fcntl.ioctl(self.master, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def type(self, keys):
        os.write(self.master, keys)

    def read(self):
        while select.select([self.master], [], [], 0.05)[0]:
            self.output += os.read(self.master, 1 << 16)
        return self.output

    def expect(self, text, after=0):
        wait_until(lambda: text in self.read()[after:], f"{text} on the terminal")

    def is_raw(self):
        return not termios.tcgetattr(self.slave)[3] & termios.ICANON

    def expect_end(self, status):
        """The program ends so, and the terminal is as it was."""
        wait_until(lambda: self.read() and self.process.poll() is not None, "end of kelmctl")
        assert self.process.returncode == status, self.output
        self.expect(LEAVE)
        assert self.output.count(ENTER) == self.output.count(LEAVE)
        assert termios.tcgetattr(self.slave) == self.before

    def close(self):
        with contextlib.suppress(ProcessLookupError):
            self.process.kill()
        self.process.wait(PATIENCE)
        os.close(self.master)
        os.close(self.slave)


@pytest.fixture
def terminal(request):
    opened = []

    def open_terminal(*words, **size):
        opened.append(Terminal(*words, **size))
        return opened[-1]
    yield open_terminal
    for one in opened:
        one.close()


@pytest.fixture
def sessions(agent, link):
    """Session 5 hears a peer that is up; session 6 has failed."""
    for words in (f"packet set 5 local {link.near4} peer {link.far4} interval 20ms",
                  "session set 5 interval 1s multiplier 255",
                  "session set 6 interval 1ms"):
        subprocess.run([KELMCTL, "-n", link.near_ns, *words.split()], check=True)
    link.send(Bfd(my_disc=9, your_disc=5, state=UP))
    assert agent.event(disc=6)
    return link.near_ns


def test_json_is_an_array_for_each_refresh(sessions):
    output = subprocess.run([KELMCTL, "top", "-j", "-n", sessions, "count", "2", "interval",
                             "1s"], capture_output=True, text=True, check=True).stdout
    first, second = map(json.loads, output.splitlines())
    assert [entry["discriminator"] for entry in first] == [6, 5]
    assert "tx_rate" not in first[1] and second[1]["tx_rate"] > 0
    assert second[1]["state"] == "up"


def test_live_screen(sessions, terminal):
    screen = terminal("-n", sessions, "top", "interval", "100ms")
    screen.expect(ENTER)
    screen.expect(b"2 sessions, 1 failed")
    assert screen.is_raw()
    assert b"AUTH FAILED" not in screen.read()
    screen.resize(200, 50)
    screen.expect(b"AUTH FAILED")
    screen.resize(40, 4)
    after = len(screen.read())
    screen.expect(b"... and ", after)
    screen.type(b"q")
    screen.expect_end(0)


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGSEGV])
def test_the_terminal_is_given_back(sessions, terminal, number):
    screen = terminal("-n", sessions, "top", "interval", "1min")
    screen.expect(b"failed")
    wait_until(screen.is_raw, "raw mode")
    screen.process.send_signal(number)
    screen.expect_end(-number)


def test_the_terminal_is_given_back_while_stopped(sessions, terminal):
    screen = terminal("-n", sessions, "top", "interval", "1min")
    screen.expect(b"failed")
    screen.process.send_signal(signal.SIGTSTP)
    screen.expect(LEAVE)
    wait_until(lambda: not screen.is_raw(), "terminal as before")
    wait_until(lambda: os.waitid(os.P_PID, screen.process.pid, os.WSTOPPED | os.WNOHANG), "stop")
    after = len(screen.read())
    screen.process.send_signal(signal.SIGCONT)
    screen.expect(ENTER, after)
    screen.expect(b"failed", after)
    screen.type(b"q")
    screen.expect_end(0)


COMPLETION = os.path.join(os.path.dirname(__file__), "../../agent/kelmctl/kelmctl.bash")


def test_bash_completes(link):
    script = f"""
        source {COMPLETION}
        COMP_WORDS=({KELMCTL} -n {link.near_ns} session set 5 dev et) COMP_CWORD=7
        _kelmctl; echo "${{COMPREPLY[@]}}"
        COMP_WORDS=({KELMCTL} mon "") COMP_CWORD=2
        _kelmctl; echo "${{COMPREPLY[@]}}" """
    output = subprocess.run(["bash", "-euc", script], capture_output=True, text=True, check=True)
    assert output.stdout.splitlines() == [link.name,
                                          "packets failures statistics count events help"]
