# SPDX-License-Identifier: GPL-2.0
"""Reception on real sockets: what the host tells about a datagram, puts together and drops. What
kelm makes of a packet is tested on the simulation."""

import socket

import pytest

from lib import bfd
from lib import protocol as p
from lib.bfd import Bfd
from lib.netns import in_namespace

SECRET = b"secret, 16 bytes"
MARK = Bfd(your_disc=0xFFFF, flags=bfd.POLL)  # for no session: always passed up


def set_session(agent, disc=5, **options):
    agent.request(p.RX_SET_SESSION, p.rx_set_session(disc, **options))


def send_datagram(link, payload, version=4):
    """By way of the far end's kernel, which cuts it into fragments."""
    family = socket.AF_INET if version == 4 else socket.AF_INET6
    with in_namespace(link.far_ns):
        sender = socket.socket(family, socket.SOCK_DGRAM)
    with sender:
        sender.sendto(payload, (link.addresses(version)[0], 3784))


@pytest.mark.parametrize("version", [4, 6])
@pytest.mark.parametrize("type, auth_type", zip(p.RX_PORTS, [bfd.PASSWORD, *bfd.DIGESTS]))
def test_every_port_hears_both_families(agent, link, type, auth_type, version):
    """The session insists on TTL, interface and authentication."""
    set_session(agent, type=type, keys=[p.auth_key(SECRET, 1)],
                auth=p.auth_config(link.near_ifindex, auth_type, p.TTL_254))
    packet, port = Bfd(my_disc=9, your_disc=5), p.RX_PORTS[type]
    for seq, ttl, secret in ((1, 255, SECRET), (1, 254, SECRET[::-1]), (2, 254, SECRET)):
        sent = link.send(bfd.signed(packet, auth_type, seq=seq, secret=secret), version,
                         dport=port, ttl=ttl)
    change = p.decode(agent.event(p.RX_PACKET_CHANGE))
    assert agent.stats(5)[0].num_auth_fail == 2
    assert (change.disc, change.ifindex, change.member_ifindex) == (5, link.near_ifindex, 0)
    assert (change.l3_offset, change.bfd_offset) == (14, 42 if version == 4 else 62)
    # The frame is whole, from Ethernet to BFD; what is below IP may have been written back.
    assert len(change.frame) == len(sent) and change.frame[12:14] == sent[12:14]
    got, want = bfd.parse_frame(change.frame), bfd.parse_frame(sent)
    for field in ("src", "dst", "ttl", "sport", "dport", "payload"):
        assert getattr(got, field) == getattr(want, field), field


@pytest.mark.parametrize("version", [4, 6])
@pytest.mark.parametrize("size", [24, 101, 1400])
def test_a_wrong_checksum_is_dropped(agent, link, version, size):
    set_session(agent)
    payload = Bfd(your_disc=5).pack().ljust(size, b"\0")
    link.send(payload, version, udp_checksum=0x1234)
    link.send(MARK, version)
    assert p.decode(agent.event(p.RX_PACKET_CHANGE)).disc == MARK.your_disc
    assert agent.stats(5)[0].num_received == 0


@pytest.mark.parametrize("version", [4, 6])
@pytest.mark.parametrize("size", [1473, 9000, 60_000])
def test_datagrams_of_many_fragments(agent, link, version, size):
    set_session(agent)
    payload = Bfd(your_disc=5).pack().ljust(size, b"\0")
    send_datagram(link, payload, version)
    change = p.decode(agent.event(p.RX_PACKET_CHANGE, 5))
    assert change.frame.endswith(payload)
    assert len(change.frame) == change.bfd_offset + size
    assert agent.dump(p.SYNC, p.sync())[0].frame == change.frame, "it fits into a dump too"
