# SPDX-License-Identifier: GPL-2.0
"""kelm-agent as a process: its configuration, its log, its end."""

import json
import os
import pathlib
import signal
import socket
import subprocess
import tempfile

from . import PATIENCE, wait_until
from .host import BUILD, KELMCTL

KELM_AGENT = os.path.join(BUILD, "bin", "kelm-agent")


def toml(value):
    """A value as TOML writes it, inline."""
    if isinstance(value, dict):
        return "{ " + ", ".join(f"{key} = {toml(each)}" for key, each in value.items()) + " }"
    if isinstance(value, list):
        return "[" + ", ".join(map(toml, value)) + "]"
    return json.dumps(value)  # text, numbers and booleans are the same


def configuration(sessions, agent=None, defaults=None):
    """Sessions are dicts with the keys of the file, '_' for '-'."""
    def table(name, values):
        return f"{name}\n" + "".join(f"{key.replace('_', '-')} = {toml(value)}\n"
                                     for key, value in values.items())
    parts = [table("[agent]", agent or {}), table("[defaults]", defaults or {})]
    return "\n".join(parts + [table("[[session]]", session) for session in sessions])


class KelmAgent:
    """One kelm-agent with a directory of its own, in which it can be stopped and started again."""

    def __init__(self, sessions, *arguments, directory=None, agent=None, env=None, **defaults):
        self._directory = tempfile.TemporaryDirectory()
        self.directory = pathlib.Path(directory or self._directory.name)
        self.config_file = self.directory / "agent.toml"
        self.socket = self.directory / "control.sock"
        self.agent_table, self.defaults, self.arguments = agent, defaults, arguments
        self.env = env
        self.logs = []
        self.configure(sessions)
        self.start()

    def configure(self, sessions):
        self.config_file.write_text(configuration(sessions, self.agent_table, self.defaults))

    def start(self):
        self.launch()
        self.wait_for(lambda line: line["message"].startswith("ready"), "'ready'")

    def launch(self):
        self.log_file = tempfile.TemporaryFile("w+")
        self.process = subprocess.Popen(
            [KELM_AGENT, "--config", self.config_file, "--state", self.directory / "state.json",
             "--socket", self.socket, "--log", "json", *self.arguments],
            stdin=subprocess.DEVNULL, stderr=self.log_file, env=self.env)

    def reload(self, sessions=None):
        """Takes a new configuration; returns the line that tells how it went."""
        if sessions is not None:
            self.configure(sessions)
        def outcomes():
            return [line for line in self.log() if line["message"].startswith("configuration ")]
        before = len(outcomes())
        self.process.send_signal(signal.SIGHUP)
        return wait_until(lambda: outcomes()[before:], "answer to SIGHUP")[0]

    def kill(self):
        self.process.kill()
        self.process.wait(PATIENCE)

    def stop(self):
        """Ends it, and expects it to end well."""
        self.process.send_signal(signal.SIGTERM)
        try:
            status = self.process.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            self.kill()
            raise AssertionError(f"kelm-agent did not end: {self.text()}") from None
        assert status == 0, f"exit status {status}: {self.text()}"

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
        wait_until(lambda: self.show(session)["state"] == state,
                   lambda: f"state {state}; the agent said: {self.text()}")

    def text(self):
        return os.pread(self.log_file.fileno(), 1 << 24, 0).decode(errors="replace")

    def log(self):
        """The lines since the last start."""
        text = self.text()
        try:
            return [json.loads(line) for line in text[:text.rfind("\n") + 1].splitlines()]
        except ValueError:
            raise AssertionError(text) from None

    def wait_for(self, wanted, what):
        """The first line of the log that is wanted."""
        def look():
            found = next((line for line in self.log() if wanted(line)), None)
            assert found or self.process.poll() is None, f"kelm-agent ended: {self.text()}"
            return found
        return wait_until(look, lambda: f"{what} from kelm-agent; it said: {self.text()}")

    def changes(self, session=None):
        """(previous state, state) of each change that it has logged."""
        return [(line["previous_state"], line["state"]) for line in self.log()
                if "state" in line and session in (None, line["session"])]

    def wait_for_change(self, state, session=None, since=0):
        """The line that tells of the session's change to this state; `since` skips earlier ones."""
        def is_it(line):
            return line.get("state") == state and session in (None, line["session"])
        def look():
            found = [line for line in self.log()[since:] if is_it(line)]
            assert found or self.process.poll() is None, f"kelm-agent ended: {self.text()}"
            return found
        return wait_until(look, lambda: f"change to {state}; it said: {self.text()}")[0]

    def close(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGCONT)
            self.stop()
        self._directory.cleanup()
