# SPDX-License-Identifier: GPL-2.0
"""Transmission, as the peer sees it on the wire. Exact times are the simulation's."""

import pytest

from lib import bfd, wait_until
from lib import protocol as p
from lib.bfd import Bfd
from lib.topology import ip

SECRET = b"a secret of 20 bytes"
# What a tick and its rounding, twice, may take off an interval; ticks are up to 4 ms long.
TICKS = 0.010


def set_packet(agent, disc, packet, **options):
    agent.request(p.TX_SET_PACKET, p.tx_set_packet(disc, packet, **options))


def set_bfd(agent, link, control, version=4, packet_options=None, **options):
    """Has kelm transmit a control packet over the link; its discriminator is the session's."""
    payload = control if isinstance(control, bytes) else control.pack()
    options.setdefault("latch_offset", 28 if version == 4 else 48)
    set_packet(agent, Bfd.parse(payload).my_disc,
               link.packet(payload, version, **packet_options or {}), **options)


def intervals(frames):
    return [b.time - a.time for a, b in zip(frames, frames[1:])]


@pytest.mark.parametrize("version", [4, 6])
def test_a_packet_goes_out_as_the_agent_made_it(agent, link, version):
    control = Bfd(my_disc=7, your_disc=9, diag=3, flags=bfd.POLL | bfd.CPI | bfd.DEMAND,
                  min_echo_rx=17)
    set_bfd(agent, link, control, version, dict(ttl=254, sport=50000, dport=4784), period=50_000)
    frame = link.receive(7)
    assert (frame.src, frame.dst) == link.addresses(version)
    assert (frame.ttl, frame.sport, frame.dport) == (254, 50000, 4784)
    assert frame.payload == control.pack() and frame.checksum_ok


def test_a_frame_goes_out_as_the_agent_made_it(agent, link):
    frame = bfd.ethernet("01:00:5e:90:00:01", "02:00:00:00:00:99",
                         link.packet(Bfd(my_disc=8).pack(), dport=6784))
    set_packet(agent, 8, frame, type=p.TX_L2, ifindex=link.near_ifindex, ip_hdr_offset=14,
               latch_offset=42, period=50_000)
    assert link.receive(8).raw == frame


@pytest.mark.parametrize("version", [4, 6])
def test_a_failed_session_latches_its_packets(agent, link, version):
    """From the failure on the wire says so, correctly signed, at the latched interval."""
    section = bfd.auth_section(bfd.METICULOUS_MD5, secret=SECRET[:16])
    control = Bfd(my_disc=7, your_disc=9, flags=bfd.CPI | bfd.AUTH, auth=section)
    set_bfd(agent, link, control, version, auth_type=bfd.METICULOUS_MD5, auth_hdr=section,
            period=20_000, latch_period=60_000, latch_state=bfd.DOWN)
    agent.request(p.RX_SET_SESSION, p.rx_set_session(
        7, flags=p.TIMER_ACTIVE, multiplier=3, period=20_000, latch=(7,),
        latch_diagnostic=bfd.DIAG_CTRL_TIMEOUT, failure=p.failure_message(7)))
    assert agent.event(p.SESSION_FAILURE, 7)
    latched = link.wire.collect(4, lambda f: f.bfd.diag)
    expected = control.but(diag=bfd.DIAG_CTRL_TIMEOUT, state=bfd.DOWN, your_disc=0, min_tx=60_000)
    for frame in latched:
        assert frame.bfd.but(auth=b"") == expected.but(auth=b"")
        assert bfd.correctly_signed(frame.payload, SECRET[:16]) and frame.checksum_ok
    assert min(intervals(latched)) >= 0.060 - TICKS


def test_a_packet_that_cannot_be_sent_is_counted_and_tried_again(agent, link):
    set_bfd(agent, link, Bfd(my_disc=7), period=20_000)
    set_bfd(agent, link, Bfd(my_disc=8, auth=bfd.auth_section(bfd.KEYED_SHA1, secret=SECRET)),
            auth_type=bfd.KEYED_SHA1, auth_hdr=bfd.auth_section(bfd.KEYED_SHA1, secret=SECRET),
            period=20_000)
    link.collect(2)
    ip("-n", link.near_ns, "link", "set", link.name, "mtu", 70)
    wait_until(lambda: agent.stats(8)[0].num_tx_errors > 2, "errors for want of room")
    link.wire.drain()
    assert link.receive(7), "a packet that fits is sent all the same"
    link.set("down")
    wait_until(lambda: agent.stats(7)[0].num_tx_errors > 2, "errors for want of a link")
    link.set("up")
    ip("-n", link.near_ns, "link", "set", link.name, "mtu", 1500)
    assert link.receive(7) and link.receive(8)


def test_the_interface_can_be_chosen(agent, link, namespaces):
    """Where the routes point does not matter then."""
    other = namespaces.link(link.near_ns, link.far_ns, n=1)
    packet = link.packet(Bfd(my_disc=7).pack())
    ip("-n", link.near_ns, "neigh", "replace", link.far4, "lladdr", other.far_mac, "nud",
       "permanent", "dev", other.name)
    set_packet(agent, 7, packet, ifindex=other.near_ifindex, period=20_000)
    frame = other.wire.receive(lambda f: f.bfd.my_disc == 7)
    assert frame.src == link.near4
