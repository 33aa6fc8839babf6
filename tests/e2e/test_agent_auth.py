# SPDX-License-Identifier: GPL-2.0
"""kelm-agent with authentication: sequence numbers; for keys see test_interop_bird.py.

Sessions of all the types run side by side, each on a link of its own."""

import contextlib
import pathlib
import tempfile

import pytest

from lib import bfd, wait_until
from lib import protocol as p
from lib.agent import Agent
from lib.kelm_agent import KelmAgent
from lib.topology import Wire

SECRET = b"a secret of ours"


class Pair:
    """Two agents with a session of each type between them, called like its type."""

    multiplier = 20  # machines that run tests stop for tenths of a second

    def __init__(self, namespaces, types):
        near, far = namespaces.add(), namespaces.add()
        self.links = {type: namespaces.link(near, far, n) for n, type in enumerate(types)}
        self._directory = tempfile.TemporaryDirectory()
        self.key_file = pathlib.Path(self._directory.name, "key")
        self.key_file.touch(mode=0o600)
        self.key_file.write_bytes(SECRET + b"\n")
        self.near, self.far = KelmAgent([]), KelmAgent([])

    def configure(self, side):
        keys = {"keys": [{"id": 1, "file": str(self.key_file)}]}
        sessions = []
        for type, link in self.links.items():
            near, far = link.addresses(4)
            local, peer = (near, far) if side == "near" else (far, near)
            sessions.append({"name": type, "namespace": getattr(link, f"{side}_ns"),
                             "interface": link.name, "local": local, "peer": peer,
                             "min_tx": "50ms", "min_rx": "50ms", "multiplier": self.multiplier,
                             "auth": {"type": type, **(keys if type != "debug-seqnum" else {})}})
        getattr(self, side).reload(sessions)

    def wait_for_change(self, state, since=0):
        for type in self.links:
            self.near.wait_for_change(state, type, since)

    def up(self):
        for side in ("near", "far"):
            self.configure(side)
        for type in self.links:
            for agent in (self.near, self.far):
                agent.wait_for_change("up", type)

    def close(self):
        self.near.close()
        self.far.close()
        self._directory.cleanup()


@pytest.fixture
def pair(namespaces, request):
    pair = Pair(namespaces, request.param)
    yield pair
    pair.close()


def with_types(*types):
    return pytest.mark.parametrize("pair", [types], indirect=True, ids=["all"])


@with_types("password", "meticulous-sha1", "debug-seqnum")
def test_no_secret_is_shown(pair):
    pair.up()
    assert all(pair.near.show(type)["auth"]["type"] == type for type in pair.links)
    assert SECRET.decode() not in str(pair.near.ask("show")) + pair.near.text()


@with_types("keyed-md5", "meticulous-md5")
def test_a_peer_that_begins_anew(pair):
    """Its sequence numbers begin anew too, and are believed after a while of silence."""
    pair.up()
    before = {}
    for type, link in pair.links.items():
        wait_until(lambda: pair.near.show(type)["received"]["packets"] > 20,
                   "a sequence number above 20")
        link.wire.drain()
        before[type] = bfd.seq_of(link.receive().payload)
    pair.far.kill()
    (pair.far.directory / "state.json").unlink()
    with Agent(link.far_ns) as admin:
        for disc in {entry.disc for entry in admin.dump(p.SYNC, p.sync())}:
            for delete in (p.TX_DELETE_PACKET, p.RX_DELETE_SESSION):
                admin.request(delete, disc.to_bytes(4, "little"))
    pair.wait_for_change("down")
    since = len(pair.near.log())
    pair.far.start()
    pair.wait_for_change("up", since)
    for type, link in pair.links.items():
        link.wire.drain()
        assert bfd.seq_of(link.receive().payload) >= before[type], "our own sequence goes on"


@with_types("meticulous-sha1")
def test_an_old_packet_is_not_believed_after_a_restart(pair):
    """One from before the session came up, say, by which the peer had lost us."""
    ((type, link),) = pair.links.items()
    with contextlib.closing(Wire(link.near_ns, link.name)) as wire:
        pair.configure("far")
        old = wire.receive(lambda f: f.src == link.far4 and f.bfd.your_disc == 0)
    pair.up()
    wait_until(lambda: pair.near.show(type)["timing"]["detection_time"] == 1_000_000,
               "negotiation")
    record = pair.near.directory / "state.json"
    wait_until(lambda: f'"state":{bfd.UP}' in record.read_text().replace(" ", ""), "its record")
    pair.near.kill()
    pair.near.start()
    pair.near.wait_for_line("still up")
    link.wire.send(old.raw)
    pair.near.ctl(f"down {type}")  # by then the packet has been looked at
    assert pair.near.changes() == [("up", "admin-down")]


@with_types("keyed-md5", "meticulous-md5")
def test_a_peer_that_begins_anew_while_nobody_listens(pair):
    """While we are administratively down, its sequence numbers may begin anew."""
    pair.up()
    for type in pair.links:
        wait_until(lambda: pair.near.show(type)["received"]["packets"] > 40, "a high number")
    since = len(pair.near.log())
    for command in ("down", "up"):  # what the near end heard last before it was up is high then
        pair.far.ask(command, list(pair.links))
    pair.wait_for_change("up", since)
    pair.near.ask("down", list(pair.links))
    pair.far.stop()  # and with it, the packets that kelm numbers
    pair.far.start()
    since = len(pair.near.log())
    pair.near.ask("up", list(pair.links))
    pair.wait_for_change("up", since)
