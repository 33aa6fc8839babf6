# SPDX-License-Identifier: GPL-2.0
"""BIRD as BFD peer."""

import re
import socket

from . import PATIENCE
from .interop import Peer, Seen


class Bird(Peer):
    """One process with one BFD protocol, which holds the UDP ports as long as it runs."""

    def start(self):
        self.write()
        self.spawn("bird", "-f", "-c", self.path("conf"), "-s", self.path("control"),
                   "-P", self.path("pid"))
        self.wait_for_ports()

    def apply(self):
        """Twice: what is new takes the interface's options from the configuration before."""
        self.write()
        self.control("configure")
        self.control("configure")

    def control(self, command):
        """What birdc does, without starting it. A line begins with a code, of another class if it is
        an error, or goes on with the code before."""
        with socket.socket(socket.AF_UNIX) as sock:
            sock.settimeout(PATIENCE)
            sock.connect(str(self.path("control")))
            replies = sock.makefile()
            assert replies.readline().startswith("0001 ")
            sock.sendall(f"{command}\n".encode())
            lines = []
            while not lines or not re.match(r"\d{4} ", lines[-1]):
                lines.append(replies.readline())
        assert lines[-1][0] == "0", lines
        return "".join(line[5:] if line[0].isdigit() else line for line in lines)

    def write(self):
        singles = "".join(f'interface "{name}" {{ {self.options(name)} }};\n'
                          for name in sorted({s.link.name for s in self.sessions}))
        neighbors = "".join(
            f"neighbor {s.near} local {s.far} multihop;\n" if s.multihop else
            f'neighbor {s.near} dev "{s.link.name}" local {s.far};\n' for s in self.sessions)
        self.path("conf").write_text(f"""
            router id 1.1.1.1;
            log stderr all;
            protocol device {{ scan time 1; }}
            protocol bfd peer {{
                debug {{ states, events }};
                {singles}
                multihop {{ {self.options(None)} }};
                {neighbors}
            }}""")

    def options(self, interface):
        text = (f"min tx interval {self.timing.min_tx} ms; min rx interval {self.timing.min_rx} ms;"
                f" multiplier {self.timing.multiplier};")
        auth = self.auth.get(interface)
        if auth:
            passwords = "".join(f' password "{secret}" {{ id {key}; }};'
                                for key, secret in auth.keys.items())
            text += f" authentication {auth.type};{passwords}"
        return text

    def seen(self, sessions):
        """BIRD drops sessions whose interface is down."""
        table = {tuple(words[:2]): words[2:] for line in
                 self.control("show bfd sessions").splitlines() if len(words := line.split()) == 6}
        return [self.entry(session, *table.get(
            (session.near, "---" if session.multihop else session.link.name), ["None", 0, 0, 0]))
            for session in sessions]

    def entry(self, session, state, _, transmit, detection):
        return Seen(state.lower(), self.changes(session), round(float(transmit) * 1000),
                    round(float(detection) * 1000))

    def changes(self, session):
        """How many it has logged; the time that it shows wanders by microseconds."""
        return len(re.findall(rf"Session to {session.near} (added|removed|changed)", self.log()))
