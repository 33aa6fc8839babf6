# SPDX-License-Identifier: GPL-2.0
"""kelm-agent as a process: its configuration, its log, its end."""

import json
import os
import pathlib
import signal
import socket
import subprocess
import tempfile

from . import PATIENCE
from .host import BUILD, KELMCTL
from .program import Program

KELM_AGENT = os.path.join(BUILD, "bin", "kelm-agent")

# Machines that run tests stop for tenths of a second.
FAST = {"min_tx": "50ms", "min_rx": "50ms", "multiplier": 24}
DETECTION = 1.2
DETECTION_US = 1_200_000


def toml(value):
    """A value as TOML writes it, inline."""
    if isinstance(value, dict):
        return "{ " + ", ".join(f"{key} = {toml(each)}" for key, each in value.items()) + " }"
    if isinstance(value, list):
        return "[" + ", ".join(map(toml, value)) + "]"
    return json.dumps(value)  # text, numbers and booleans are the same


def table(name, values):
    """Keys are as the file has them, but with '_' for '-'; None stands for no key."""
    return f"{name}\n" + "".join(f"{key.replace('_', '-')} = {toml(value)}\n"
                                 for key, value in values.items() if value is not None)


class KelmAgent(Program):
    """One kelm-agent with a directory of its own, in which it can be stopped and started again.
    What its sessions do not say is in `defaults`."""

    def __init__(self, sessions, arguments=(), *, directory=None, agent=None, env=None, **defaults):
        self._directory = tempfile.TemporaryDirectory()
        self.directory = pathlib.Path(directory or self._directory.name)
        self.config_file = self.directory / "agent.toml"
        self.socket = self.directory / "control.sock"
        self.agent_table, self.arguments, self.env = agent or {}, arguments, env
        self.defaults = FAST | defaults
        self.configure(sessions)
        self.start()

    def configure(self, sessions):
        self.config_file.write_text("\n".join([
            table("[agent]", self.agent_table), table("[defaults]", self.defaults),
            *(table("[[session]]", session) for session in sessions)]))

    def start(self):
        self.begin()
        self.wait_for_line("ready")

    def begin(self):
        """Does not wait until it is ready."""
        self.launch(KELM_AGENT, "--config", self.config_file, "--state",
                    self.directory / "state.json", "--socket", self.socket, "--log", "json",
                    *self.arguments, env=self.env)

    def restart(self, *arguments):
        """As after a crash."""
        self.kill()
        self.arguments = arguments
        self.start()

    def reload(self, sessions):
        """Takes a new configuration; returns the line that tells how it went."""
        self.configure(sessions)
        since = len(self.log())
        self.process.send_signal(signal.SIGHUP)
        return self.wait_for(lambda: next(
            (line for line in self.log()[since:] if line["message"].startswith("configuration ")),
            None), "the outcome of reloading")

    def ctl(self, words, json_output=True, status=0):
        """kelmctl agent; the answer, or the complaint."""
        result = subprocess.run([KELMCTL, *["-j"] * json_output, "agent", *words.split(), "socket",
                                 self.socket], capture_output=True, text=True, timeout=PATIENCE)
        assert result.returncode == status, result.stderr
        if status:
            return result.stderr
        return json.loads(result.stdout) if json_output and result.stdout else result.stdout

    def show(self, session="s"):
        (shown,) = self.ask("show", [session])["sessions"]
        return shown

    def ask(self, command, sessions=()):
        """What kelmctl does, without starting it: to be asked again and again."""
        answer = json.loads(self.ask_for_text(command, sessions))
        assert answer["ok"], answer
        return answer

    def ask_for_text(self, command, sessions=()):
        with socket.socket(socket.AF_UNIX) as sock:
            sock.settimeout(PATIENCE)
            sock.connect(str(self.socket))
            sock.sendall(json.dumps({"command": command, "sessions": list(sessions)}).encode() +
                         b"\n")
            text = sock.makefile().read()
        assert text.endswith("\n"), f"{len(text)} characters of an answer"
        return text

    def wait_for_state(self, state, session="s"):
        self.wait_for(lambda: self.show(session)["state"] == state, f"state {state}")

    def wait_for_rate(self, detection_time, session="s"):
        """Up, and past the slow beginning."""
        self.wait_for_state("up", session)
        self.wait_for(lambda: self.show(session)["timing"]["detection_time"] == detection_time,
                      f"detection time of {detection_time} us")

    def log(self):
        """The lines since the last start."""
        try:
            return list(map(json.loads, self.lines()))
        except ValueError:
            raise AssertionError(self.text()) from None

    def wait_for_line(self, text, since=0):
        """The first line of the log with this text; `since` skips earlier ones."""
        return self.wait_for(lambda: next((line for line in self.log()[since:]
                                           if text in line["message"]), None), repr(text))

    def changes(self, session=None):
        """(previous state, state) of each change that it has logged."""
        return [(line["previous_state"], line["state"]) for line in self.log()
                if "state" in line and session in (None, line["session"])]

    def wait_for_change(self, state, session=None, since=0):
        """The line that tells of the session's change to this state; `since` skips earlier ones."""
        return self.wait_for(lambda: next(
            (line for line in self.log()[since:] if line.get("state") == state
             and session in (None, line["session"])), None), f"change to {state}")

    def close(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGCONT)
            self.stop()
        self._directory.cleanup()
