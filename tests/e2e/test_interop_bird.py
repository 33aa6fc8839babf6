# SPDX-License-Identifier: GPL-2.0
"""kelm-agent against BIRD."""

import pytest

from lib.bird import Bird
from lib.interop import Auth, Bed, Session
from lib.kelm_agent import KelmAgent
from lib.scenarios import TIMING, Scenarios, all_up

# As BIRD and as kelm-agent call them.
AUTHENTICATION = {"simple": "password", "keyed md5": "keyed-md5", "keyed sha1": "keyed-sha1",
                  "meticulous keyed md5": "meticulous-md5",
                  "meticulous keyed sha1": "meticulous-sha1"}
SECRETS = {1: "first secret", 2: "second secret"}


@pytest.fixture(scope="module")
def bed():
    bed = Bed(Bird, TIMING, links=len(AUTHENTICATION))
    yield bed
    bed.close()


class TestBird(Scenarios):
    pass


class Authenticated:
    """A session with each type of authentication. Each has a link of its own: by that BIRD tells
    their keys."""

    def __init__(self, bed, directory):
        self.peer, self.directory = bed.peer, directory
        self.sessions = [Session(type.replace(" ", "-"), link)
                         for type, link in zip(AUTHENTICATION, bed.links)]
        for key, secret in SECRETS.items():
            self.key_file(key).touch(mode=0o600)
            self.key_file(key).write_text(secret + "\n")
        self.agent = KelmAgent([], **TIMING.keys())

    def key_file(self, key):
        return self.directory / f"key{key}"

    def use(self, ours, peers, send=1):
        """The ids of our keys, and of the one of them to send with; the peer's keys."""
        self.peer.configure(self.sessions, auth={
            session.link.name: Auth(type, peers)
            for session, type in zip(self.sessions, AUTHENTICATION)})
        self.agent.reload([session.configuration(auth={
            "type": type, "send": send,
            "keys": [{"id": key, "file": str(self.key_file(key))} for key in ours]})
            for session, type in zip(self.sessions, AUTHENTICATION.values())])

    def all_up(self):
        all_up(self.agent, self.peer, self.sessions)

    def seen(self):
        return self.peer.seen(self.sessions)

    def collect(self, count):
        """From now on, this many packets of each session."""
        for session in self.sessions:
            session.link.wire.drain()
        return [frame for session in self.sessions for frame in session.link.collect(count)]


@pytest.fixture
def authenticated(bed, tmp_path):
    sessions = Authenticated(bed, tmp_path)
    sessions.use([1], {1: SECRETS[1]})
    sessions.all_up()
    yield sessions
    sessions.agent.close()


class TestBirdAuthentication:

    @pytest.fixture(autouse=True)
    def nothing_left_behind(self):
        """The namespaces stay for all tests."""

    def test_wrong_keys(self, authenticated):
        agent, since = authenticated.agent, len(authenticated.agent.log())
        authenticated.use([1], {1: "wrong secret"})
        for session in authenticated.sessions:
            change = agent.wait_for_change("down", session.name, since)
            assert "detection time" in change["reason"]
        changes = agent.changes()
        authenticated.collect(3)
        assert {seen.state for seen in authenticated.seen()} == {"down"}
        assert agent.changes() == changes
        authenticated.use([1], {1: SECRETS[1]})
        authenticated.all_up()

    def test_key_rollover(self, authenticated):
        """Both ends accept a second key, send it, and drop the first one: nothing happens."""
        before, changes = authenticated.seen(), authenticated.agent.changes()
        for ours, send, peers in (([1, 2], 1, [1]), ([1, 2], 1, [1, 2]), ([1, 2], 2, [1, 2]),
                                  ([1, 2], 2, [2]), ([2], 2, [2])):
            authenticated.use(ours, {key: SECRETS[key] for key in peers}, send)
            # More than the peer would miss.
            sent = authenticated.collect(TIMING.multiplier + 2)
            assert {frame.bfd.auth[2] for frame in sent} == {send}
        now = authenticated.seen()
        assert [(s.state, s.changes) for s in now] == [("up", s.changes) for s in before]
        assert authenticated.agent.changes() == changes
