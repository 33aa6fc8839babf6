# SPDX-License-Identifier: GPL-2.0
"""kelmctl against a real host: what a person types is done, and what kelm knows is shown."""

import json
import select
import subprocess

import pytest

from lib import PATIENCE, bfd, wait_until
from lib import protocol as p
from lib.bfd import Bfd
from lib.host import KELMCTL

SECRET = b"a secret of 20 bytes"


def kelmctl(namespace, *words, status=0, **options):
    """Runs it; what it prints, decoded if it is JSON, or what it complains."""
    result = subprocess.run([KELMCTL, "-n", namespace, *" ".join(words).split()],
                            capture_output=True, text=True, timeout=PATIENCE, **options)
    assert result.returncode == status, result.stderr
    if status:
        return result.stderr
    return json.loads(result.stdout) if "-j" in " ".join(words).split() else result.stdout


@pytest.mark.parametrize("version", [4, 6])
def test_a_packet_from_parameters(agent, link, version):
    near, far = link.addresses(version)
    kelmctl(link.near_ns, f"packet set 7 local {near} peer {far} interval 20ms type multihop ttl 77",
            "source-port 50000 state init diag neighbor-signaled-session-down multiplier 5 your-discriminator 0x11",
            "min-rx 30ms min-echo-rx 1ms poll demand cpi off auth meticulous-sha1 key-id 9",
            "key-file /dev/stdin", input=SECRET.decode())
    frames = link.collect(3, 7)
    for frame in frames:
        assert (frame.src, frame.dst) == (near, far)
        assert (frame.ttl, frame.sport, frame.dport) == (77, 50000, 4784)
        assert frame.bfd.but(auth=b"") == Bfd(
            7, 0x11, bfd.INIT, bfd.DIAG_NEIGH_DOWN, bfd.POLL | bfd.DEMAND | bfd.AUTH, 5, 20_000,
            30_000, 1_000)
        assert frame.payload[24:27] == bytes([bfd.METICULOUS_SHA1, 28, 9])
        assert bfd.correctly_signed(frame.payload, SECRET)
    kelmctl(link.near_ns, "packet delete 7")
    assert agent.dump(p.SYNC, p.sync()) == []


def test_a_session_from_parameters(agent, link):
    kelmctl(link.near_ns, f"packet set 7 local {link.near4} peer {link.far4} interval 20ms state up")
    kelmctl(link.near_ns, "session set 5 interval 1s multiplier 2 require-ttl 254 latch 7",
            f"latch-diag path-down dev {link.name} auth keyed-md5 key-id 3 key-file /dev/stdin",
            input="secret")
    packet = bfd.signed(Bfd(your_disc=5), bfd.KEYED_MD5, key_id=3)
    for payload, ttl in ((packet, 255), (Bfd(your_disc=5), 254), (packet, 254)):
        link.send(payload, ttl=ttl)
    assert agent.event(p.RX_PACKET_CHANGE, 5)
    assert agent.event(p.SESSION_FAILURE, 5)  # after which nothing more is counted
    (shown,) = kelmctl(link.near_ns, "-j session show 5")
    (known,) = agent.stats(5)
    for name in ("num_received", "num_auth_fail", "num_passup", "num_timeout"):
        assert shown[name] == getattr(known, name), name
    assert (shown["num_received"], shown["num_auth_fail"], shown["num_timeout"]) == (1, 2, 1)
    assert link.wire.receive(lambda f: f.bfd.my_disc == 7 and f.bfd.diag == bfd.DIAG_PATH_DOWN)
    (shown,) = kelmctl(link.near_ns, "-j packet show")
    assert (shown["discriminator"], shown["num_latches"]) == (7, 1)


def test_monitor(link, agent):
    """Every event is a line, as it happens."""
    with subprocess.Popen([KELMCTL, "-n", link.near_ns, "-j", "monitor"], stdout=subprocess.PIPE,
                          text=True) as monitor:
        def listens():
            link.send(Bfd(my_disc=3, your_disc=0xABC, state=bfd.INIT))
            return select.select([monitor.stdout], [], [], 0.05)[0]

        wait_until(listens, "line from kelmctl monitor")
        events = (json.loads(line) for line in monitor.stdout)
        packet = next(events)["packet"]
        assert (packet["your_discriminator"], packet["state"]) == (0xABC, "init")
        assert packet["source"] == link.far4 and packet["ifname"] == link.name
        kelmctl(link.near_ns, "session set 5 interval 1ms")
        failure = next(event for event in events if event["message"] == "session_failure")
        assert failure["discriminator"] == 5
        monitor.kill()


def test_all_statistics_and_the_state_of_everything(agent, link):
    kelmctl(link.near_ns, "session set 5 interval 1s timer off")
    kelmctl(link.near_ns, f"packet set 6 local {link.near4} peer {link.far4} interval 1s")
    everything = kelmctl(link.near_ns, "-j statistics show")
    assert [(s["message"], s.get("discriminator")) for s in everything] == \
        [("rx_stats", 5), ("tx_stats", 6), ("module_stats", None)]
    assert [(s["message"], s["discriminator"]) for s in kelmctl(link.near_ns, "-j sync dump")] == \
        [("rx_sync", 5), ("tx_sync", 6)]


def test_refusals_are_explained(link, agent):
    for words, status, told in (
            ("session delete 5", 1, "no such receive session"),
            ("packet delete 5", 1, "no such"),
            ("session set 5 interval 1s latch 9", 1, "set that packet first"),
            ("session set 5 interval 1", 2, "1"),
            ("session set 0 interval 1s", 2, "0"),
            (f"packet set 5 local {link.near4} peer {link.far6} interval 1s", 1, "both"),
            ("nonsense", 2, "nonsense")):
        assert told in kelmctl(link.near_ns, words, status=status), words
