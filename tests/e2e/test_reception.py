# SPDX-License-Identifier: GPL-2.0
"""Reception: what is passed up to the agent, what is only counted, what is dropped."""

import socket
import struct

import pytest

from lib import bfd
from lib import protocol as p
from lib.bfd import Bfd
from lib.netns import in_namespace

SECRET = b"a secret of 20 bytes"
MARK = Bfd(your_disc=0xFFFF, flags=bfd.POLL)  # for no session: always passed up


def set_session(agent, disc=5, **options):
    options.setdefault("failure", p.failure_message(disc))
    agent.request(p.RX_SET_SESSION, p.rx_set_session(disc, **options))


def passed_up(agent, link, *payloads, version=4, **options):
    """The frames that reach the agent of those that the peer sends, in order."""
    for payload in payloads:
        link.send(payload, version, **options)
    link.send(MARK, version, **{**options, "udp_checksum": None, "ttl": 255})
    events = agent.events_until(
        lambda m: m.type == p.RX_PACKET_CHANGE and p.decode(m).disc == MARK.your_disc)
    return [p.decode(m) for m in events]


def session_stats(agent, disc=5):
    return agent.stats(disc)[-1]


@pytest.mark.parametrize("version", [4, 6])
@pytest.mark.parametrize("type", p.RX_PORTS)
def test_every_port_hears_both_families(agent, link, type, version):
    set_session(agent, type=type)
    payload = Bfd(my_disc=9, your_disc=5).pack()
    sent = link.send(payload, version, dport=p.RX_PORTS[type], ttl=200)
    change = p.decode(agent.event(p.RX_PACKET_CHANGE))
    assert (change.disc, change.ifindex, change.member_ifindex) == (5, link.near_ifindex, 0)
    headers = 42 if version == 4 else 62
    assert (change.l3_offset, change.bfd_offset) == (14, headers)
    assert len(change.frame) == headers + 24
    # The frame is whole, from Ethernet to BFD; what is below IP may have been written back.
    got, want = bfd.parse_frame(change.frame), bfd.parse_frame(sent)
    for field in ("src", "dst", "ttl", "sport", "dport", "payload"):
        assert getattr(got, field) == getattr(want, field), field
    assert change.frame[12:14] == sent[12:14]


def test_only_changes_are_passed_up(agent, link):
    set_session(agent)
    first = Bfd(my_disc=9, your_disc=5, state=bfd.DOWN)
    sent = [first, first, first.but(state=bfd.INIT), first.but(state=bfd.INIT),
            first.but(min_rx=1), first.but(min_rx=1, flags=bfd.POLL),
            first.but(min_rx=1, flags=bfd.POLL), first.but(min_rx=1, flags=bfd.FINAL),
            first.but(min_rx=1, flags=bfd.FINAL), first.but(min_rx=1), first.but(min_rx=1)]
    wanted = [sent[i] for i in (0, 2, 4, 5, 6, 7, 8, 9)]
    got = passed_up(agent, link, *sent)
    assert [change.frame[42:] for change in got] == [packet.pack() for packet in wanted]
    stats = session_stats(agent)
    assert (stats.num_received, stats.num_passup) == (11, 8)


def test_a_change_of_length_is_passed_up_and_a_digest_is_not_a_change(agent, link):
    set_session(agent, auth=p.auth_config(type=bfd.METICULOUS_SHA1), multiplier=10,
                keys=[p.auth_key(SECRET, 1)])
    packet = Bfd(your_disc=5)
    first, second, third = (bfd.signed(packet, bfd.METICULOUS_SHA1, seq=seq, secret=SECRET)
                            for seq in (1, 2, 3))
    got = passed_up(agent, link, first, second, third + b"trailing bytes")
    assert [c.frame[42:] for c in got] == [first, third + b"trailing bytes"]


def test_packets_without_a_session(agent, link):
    before = agent.module_stats()
    got = passed_up(agent, link, Bfd(your_disc=0, state=bfd.DOWN), Bfd(your_disc=0, state=bfd.UP),
                    Bfd(your_disc=6), Bfd(your_disc=6))
    assert [change.disc for change in got] == [0, 6, 6]
    after = agent.module_stats()
    assert after.num_passup_disc_0 - before.num_passup_disc_0 == 1
    assert after.num_invalid_sessions - before.num_invalid_sessions == 2 + 1  # and the mark
    assert after.rfc_drops - before.rfc_drops == 1


def test_a_session_serves_every_port_and_ends_when_deleted(agent, link):
    set_session(agent, type=p.RX_MULTIHOP)
    passed_up(agent, link, Bfd(your_disc=5), dport=3784)
    assert session_stats(agent).num_received == 1
    agent.request(p.RX_DELETE_SESSION, struct.pack("=I", 5))
    assert len(passed_up(agent, link, Bfd(your_disc=5), Bfd(your_disc=5))) == 2


def test_invalid_packets_are_dropped_and_counted(agent, link):
    set_session(agent)
    good = Bfd(your_disc=5)

    def section(type, length, size):
        return bytes([type, length]) + bytes(size - 2)

    invalid = [
        b"", b"\x20", good.pack()[:23],
        good.but(version=0), good.but(version=2), good.but(version=7),
        good.but(length=25), good.but(length=23), good.but(length=0), good.but(length=255),
        good.but(multiplier=0), good.but(flags=bfd.MULTIPOINT), good.but(my_disc=0),
        good.but(your_disc=0, state=bfd.UP), good.but(your_disc=0, state=bfd.INIT),
        good.but(flags=bfd.AUTH), good.but(flags=bfd.AUTH, length=26).pack() + b"\1\2",
    ]
    # Authentication sections of a wrong length, of no type, and past the end of the packet.
    for type, length, size in ((0, 8, 8), (6, 24, 24), (254, 8, 8), (1, 3, 4), (1, 20, 20),
                               (2, 28, 28), (3, 23, 24), (4, 24, 24), (5, 27, 28), (255, 7, 8),
                               (255, 24, 24), (2, 24, 8), (3, 24, 23), (4, 28, 27), (5, 28, 4),
                               (1, 19, 18), (1, 4, 3), (255, 8, 7)):
        invalid.append(good.but(auth=section(type, length, size)))
    before = agent.module_stats()
    assert passed_up(agent, link, *invalid) == []
    assert agent.module_stats().rfc_drops - before.rfc_drops == len(invalid)
    assert session_stats(agent).num_received == 0


@pytest.mark.parametrize("version", [4, 6])
def test_ttl(agent, link, version):
    for flags, ttl, accepted in ((0, 1, 1), (p.TTL_255, 255, 1), (p.TTL_255, 254, 0),
                                 (p.TTL_254, 254, 1), (p.TTL_254, 255, 0),
                                 (p.TTL_255 | p.TTL_254, 255, 0)):
        set_session(agent, auth=p.auth_config(flags=flags))
        before = session_stats(agent)
        passed_up(agent, link, Bfd(your_disc=5), version=version, ttl=ttl)
        after = session_stats(agent)
        assert after.num_received - before.num_received == accepted, (flags, ttl)
        assert after.num_auth_fail - before.num_auth_fail == 1 - accepted, (flags, ttl)


def test_a_session_can_be_tied_to_an_interface(agent, link, namespaces):
    other = namespaces.link(link.near_ns, link.far_ns, n=1)
    set_session(agent, auth=p.auth_config(ifindex=other.near_ifindex))
    assert passed_up(agent, link, Bfd(your_disc=5)) == []
    (change,) = passed_up(agent, other, Bfd(your_disc=5))
    assert change.ifindex == other.near_ifindex
    assert session_stats(agent).num_auth_fail == 1


@pytest.mark.parametrize("type", [bfd.PASSWORD, *bfd.DIGESTS])
def test_authentication(agent, link, type):
    """Each packet is accepted or refused in turn, by key, digest and sequence number."""
    secret, second = SECRET[:16], b"another"
    set_session(agent, auth=p.auth_config(type=type), multiplier=3,
                keys=[p.auth_key(secret, 5), p.auth_key(second, 7)])
    packet = Bfd(your_disc=5)

    def good(seq, **options):
        return bfd.signed(packet, type, seq=seq, **{"key_id": 5, "secret": secret, **options})

    def corrupted(data, index):
        return data[:index] + bytes([data[index] ^ 1]) + data[index + 1:]

    meticulous = type in (bfd.METICULOUS_MD5, bfd.METICULOUS_SHA1)
    steps = [
        ("first", good(100), True),
        ("next", good(101), True),
        ("other key", good(102, key_id=7, secret=second), True),
        ("unknown key", good(103, key_id=9), False),
        ("wrong secret", good(103, secret=b"x" * 16), False),
        ("wrong last byte", corrupted(good(103), -1), False),
        ("no authentication", packet.pack(), False),
        ("another type", bfd.signed(packet, bfd.DEBUG_SEQNUM), False),
        # A number moves on even if its digest is wrong.
        ("after those", good(104), True),
        ("replayed", good(100), type == bfd.PASSWORD),
        ("repeated", good(104), not meticulous),
        ("window's end", good(107), True),
        ("beyond the window", good(111), not meticulous),
    ]
    outcome = []
    for name, payload, _ in steps:
        before = session_stats(agent).num_received
        passed_up(agent, link, payload)
        outcome.append((name, session_stats(agent).num_received - before == 1))
    assert outcome == [(name, accepted) for name, _, accepted in steps]
    stats = session_stats(agent)
    assert stats.num_auth_fail == sum(not accepted for *_, accepted in steps)
    assert stats.num_auth_type_mismatch == 1


@pytest.mark.parametrize("version", [4, 6])
@pytest.mark.parametrize("size", [24, 101, 1400])
def test_a_wrong_checksum_is_dropped(agent, link, version, size):
    set_session(agent)
    payload = Bfd(your_disc=5).pack().ljust(size, b"\0")
    assert passed_up(agent, link, payload, version=version, udp_checksum=0x1234) == []
    assert session_stats(agent).num_received == 0


@pytest.mark.parametrize("version", [4, 6])
@pytest.mark.parametrize("size", [1473, 9000, 60_000])
def test_datagrams_of_many_fragments(agent, link, version, size):
    set_session(agent)
    payload = Bfd(your_disc=5).pack().ljust(size, b"\0")
    family = socket.AF_INET if version == 4 else socket.AF_INET6
    near, _ = link.addresses(version)
    with in_namespace(link.far_ns):
        sender = socket.socket(family, socket.SOCK_DGRAM)
    with sender:
        sender.sendto(payload, (near, 3784))
    change = p.decode(agent.event(p.RX_PACKET_CHANGE, 5))
    assert change.frame.endswith(payload)
    assert len(change.frame) == change.bfd_offset + size
    assert agent.dump(p.SYNC, p.sync())[0].frame == change.frame, "it fits into a dump too"


def test_long_frames_lengthen_a_dump_datagram_no_more_than_agents_are_told(agent, link):
    discs, size = (5, 6, 7), 40_000
    near, _ = link.addresses(4)
    with in_namespace(link.far_ns):
        sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    with sender:
        for disc in discs:
            set_session(agent, disc)
            sender.sendto(Bfd(your_disc=disc).pack().ljust(size, b"\0"), (near, 3784))
            agent.event(p.RX_PACKET_CHANGE, disc)
    datagrams = agent.finish_dump(agent.start_dump(p.SYNC, p.sync()))
    assert sum(len(m.body) > size for datagram in datagrams for m in datagram) == len(discs)
    for datagram in datagrams:
        assert sum(p.HEADER.size + len(m.body) for m in datagram) <= 68 * 1024
