# SPDX-License-Identifier: GPL-2.0
"""FRRouting's bfdd as BFD peer."""

import json
import shutil
import socket
import subprocess

from . import PATIENCE, wait_until
from .interop import Peer, Seen

DAEMONS = "/usr/lib/frr/"


class Frr(Peer):
    """bfdd, and zebra, which tells it about interfaces; both as the user that the package made."""

    def start(self):
        shutil.chown(self.path("."), "frr", "frrvty")
        for daemon in ("zebra", "bfdd"):
            self.path(f"{daemon}.vty").unlink(missing_ok=True)  # of one that was killed
            self.path(f"{daemon}.conf").touch()
            control = ["--bfdctl", self.path("control")] if daemon == "bfdd" else []
            self.spawn(DAEMONS + daemon, "--vty_socket", self.path("."), "--vty_port", 0,
                       "--socket", self.path("zebra"), "--config_file",
                       self.path(f"{daemon}.conf"), "--pid_file", self.path(f"{daemon}.pid"),
                       "--log", "stdout", *control)
            wait_until(self.path(f"{daemon}.vty").exists, lambda: f"{daemon}; it said: {self.log()}")
        self.wait_for_ports()
        if self.sessions:
            self.apply()

    def apply(self):
        self.vtysh("configure terminal", "bfd", *(
            command for session in self.sessions for command in (
                self.peer(session), f"transmit-interval {self.timing.min_tx}",
                f"receive-interval {self.timing.min_rx}",
                f"detect-multiplier {self.timing.multiplier}", "exit")))

    def administratively_down(self, session, down):
        self.vtysh("configure terminal", "bfd", self.peer(session),
                   "shutdown" if down else "no shutdown")

    @staticmethod
    def peer(session):
        kind = "multihop " if session.multihop else ""
        interface = "" if session.multihop else f" interface {session.link.name}"
        return f"peer {session.near} {kind}local-address {session.far}{interface}"

    def vtysh(self, *commands):
        arguments = [word for command in commands for word in ("-c", command)]
        result = subprocess.run(["vtysh", "--vty_socket", self.path("."), *arguments],
                                capture_output=True, text=True, timeout=PATIENCE)
        assert result.returncode == 0 and "%" not in result.stdout, result.stdout + result.stderr
        return result.stdout

    def show(self, what):
        """The peers in one of bfdd's lists; asked as vtysh does it, without starting it."""
        with socket.socket(socket.AF_UNIX) as vty:
            vty.settimeout(PATIENCE)
            vty.connect(str(self.path("bfdd.vty")))
            for command in ("enable", f"show bfd {what} json"):
                vty.sendall(command.encode() + b"\0")
                answer = b""
                while answer[-4:-1] != bytes(3):  # and then a status
                    answer += vty.recv(1 << 16)
        return {peer["peer"]: peer for peer in json.loads(answer[:-4])}

    def seen(self, sessions):
        peers, counters = self.show("peers"), self.show("peers counters")
        return [self.entry(peers[session.near], counters[session.near]) for session in sessions]

    @staticmethod
    def entry(peer, counters):
        """bfdd does not tell the rates that follow from what both sides want."""
        return Seen(peer["status"], (counters["session-up"], counters["session-down"]),
                    transmit=max(peer["transmit-interval"], peer["remote-receive-interval"]),
                    detection=peer["remote-detect-multiplier"] *
                    max(peer["receive-interval"], peer["remote-transmit-interval"]))
