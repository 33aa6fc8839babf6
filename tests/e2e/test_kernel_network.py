# SPDX-License-Identifier: GPL-2.0
"""kelm's ways through the kernel's network: devices of all kinds, whatever becomes of them."""

import contextlib
import fcntl
import os
import socket
import struct
import subprocess

import pytest

from lib import bfd, wait_until
from lib import protocol as p
from lib.bfd import Bfd
from lib.netns import in_namespace
from lib.topology import Wire, ip, ip_batch

pytestmark = pytest.mark.kernel

ETHERNET, IPV4, IPV6, UDP = 14, 20, 40, 8
SOL_UDP, UDP_SEGMENT = 17, 103
IFF_TUN, IFF_NO_PI, TUNSETIFF = 0x1, 0x1000, 0x400454CA


def headers(version):
    return (IPV4 if version == 4 else IPV6) + UDP


def udp_socket(namespace, version):
    family = socket.AF_INET if version == 4 else socket.AF_INET6
    with in_namespace(namespace):
        return socket.socket(family, socket.SOCK_DGRAM)


def payload_of(size, disc=5):
    """A datagram that is always passed up, with bytes that differ from each other behind it."""
    packet = Bfd(my_disc=9, your_disc=disc, flags=bfd.POLL).pack()
    return packet + bytes(i % 251 for i in range(size - len(packet)))


def set_session(agent, disc=5, **options):
    agent.request(p.RX_SET_SESSION, p.rx_set_session(disc, **options))


def set_packet(agent, version, packet):
    disc = Bfd.parse(packet[headers(version):]).my_disc
    agent.request(p.TX_SET_PACKET, p.tx_set_packet(disc, packet, period=5_000,
                                                   latch_offset=headers(version)))


def expect_frame(agent, payload, *, link_header=ETHERNET, version=4, ifindex=None):
    """The datagram is passed up, whole, behind headers that are where they are said to be."""
    change = p.decode(agent.event(p.RX_PACKET_CHANGE, 5))
    assert (change.l3_offset, change.bfd_offset) == (link_header, link_header + headers(version))
    assert change.frame[change.bfd_offset:] == payload
    assert change.frame[change.l3_offset] >> 4 == version
    assert ifindex in (None, change.ifindex)
    return change.frame


def index_of(namespace, interface):
    with in_namespace(namespace):
        return socket.if_nametoindex(interface)


# Reception


def test_a_tap_sees_what_was_sent(agent, link):
    """Its buffers are shared with kelm, which writes into received packets."""
    set_session(agent, flags=p.RX_MYDISC_RTT)
    with contextlib.closing(Wire(link.near_ns, link.name)) as tap:
        for version, size in ((4, 24), (4, 1400), (6, 24), (6, 1400)):
            payload = payload_of(size)
            link.send(payload, version)
            sent = link.send(payload, version)
            expect_frame(agent, payload, version=version)
            expect_frame(agent, payload[:4] + bytes(4) + payload[8:], version=version)  # written
            assert [tap.receive().raw, tap.receive().raw] == [sent, sent]


def test_vlan(agent, link):
    addresses = {4: ("10.5.0.1", "10.5.0.2"), 6: ("fd05::1", "fd05::2")}
    for namespace, side in ((link.near_ns, 0), (link.far_ns, 1)):
        ip_batch(namespace, f"""
            link add link {link.name} name vlan5 type vlan id 5
            address add {addresses[4][side]}/24 dev vlan5
            address add {addresses[6][side]}/64 dev vlan5 nodad
            link set vlan5 up""")
    set_session(agent)
    ifindex = index_of(link.near_ns, "vlan5")
    for version, (near, far) in addresses.items():
        # With the tag beside the frame, as devices hand it over, and in it, as on the wire.
        with udp_socket(link.far_ns, version) as sender:
            sender.sendto(payload_of(100), (near, 3784))
        expect_frame(agent, payload_of(100), version=version, ifindex=ifindex)
        frame = bfd.ethernet(link.near_mac, link.far_mac,
                             bfd.ip_datagram(far, near, payload_of(200)))
        link.wire.send(frame[:12] + struct.pack("!HH", 0x8100, 5) + frame[12:])
        got = expect_frame(agent, payload_of(200), version=version, ifindex=ifindex)
        assert got == frame


@pytest.mark.parametrize("together", ["sent", "received"])
def test_segments_that_travel_as_one(agent, link, together):
    """The kernel takes them apart again where they are delivered."""
    if together == "received":
        for namespace, *features in ((link.near_ns, "gro", "on", "rx-gro-list", "on"),
                                     (link.far_ns, "tx-udp-segmentation", "off")):
            with in_namespace(namespace):
                subprocess.run(["ethtool", "-K", link.name, *features], check=True)
    size, count = 300, 20
    for version in (4, 6):
        set_session(agent)
        near, _ = link.addresses(version)
        with udp_socket(link.far_ns, version) as sender, \
                contextlib.closing(Wire(link.near_ns, link.name)) as tap:
            sender.setsockopt(SOL_UDP, UDP_SEGMENT, size)
            sender.sendto(payload_of(size) * count, (near, 3784))
            for _ in range(count):
                expect_frame(agent, payload_of(size), version=version)
            assert len(tap.receive().raw) > count * size, "they did not travel as one"


def test_datagrams_of_every_size(agent, link):
    """Whole and in fragments, over Ethernet and to oneself."""
    set_session(agent)
    for version, home in ((4, "127.0.0.1"), (6, "::1")):
        near, _ = link.addresses(version)
        with udp_socket(link.near_ns, version) as sender:
            for size in (24, 9000, 65507):
                sender.sendto(payload_of(size), (home, 3784))
                expect_frame(agent, payload_of(size), version=version, ifindex=1)
        with udp_socket(link.far_ns, version) as sender:
            for mtu, size in ((1500, 1473), (1500, 65507), (9000, 8900), (9000, 65507)):
                for namespace in (link.near_ns, link.far_ns):
                    ip("-n", namespace, "link", "set", link.name, "mtu", mtu)
                sender.sendto(payload_of(size), (near, 3784))
                expect_frame(agent, payload_of(size), version=version, ifindex=link.near_ifindex)


def test_tiny_and_damaged_datagrams_hold_nothing_up(agent, link):
    """Each is dropped at once: no later datagram waits behind it."""
    set_session(agent)
    before = agent.module_stats()
    for version in (4, 6):
        for size in range(24):
            link.send(bytes([0x20]) * size, version)
        for size in (24, 60, 68, 69, 77, 1000, 1400):  # short and long ones are verified apart
            link.send(payload_of(size), version, udp_checksum=0x1234)
        link.send(payload_of(24), version)
        expect_frame(agent, payload_of(24), version=version)
    after = agent.module_stats()
    assert after.rfc_drops - before.rfc_drops == 2 * 24
    assert after.rx_packet_missing == before.rx_packet_missing
    assert agent.stats(5)[-1].num_received == 2


def test_a_device_without_a_link_layer(agent, link):
    if not os.path.exists("/sys/class/misc/tun"):  # it may be built in
        subprocess.run(["modprobe", "tun"], check=True)
    set_session(agent)
    with in_namespace(link.near_ns):
        tun = open("/dev/net/tun", "r+b", buffering=0)
    with tun:
        fcntl.ioctl(tun, TUNSETIFF, struct.pack("16sH22x", b"tun0", IFF_TUN | IFF_NO_PI))
        ip_batch(link.near_ns, """
            address add 10.7.0.1/24 dev tun0
            address add fd07::1/64 dev tun0 nodad
            link set tun0 up""")
        for version, near, far in ((4, "10.7.0.1", "10.7.0.2"), (6, "fd07::1", "fd07::2")):
            sent = bfd.ip_datagram(far, near, payload_of(100))
            tun.write(sent)
            frame = expect_frame(agent, payload_of(100), link_header=0, version=version,
                                 ifindex=index_of(link.near_ns, "tun0"))
            assert frame == sent
            set_packet(agent, version, bfd.ip_datagram(near, far, Bfd(my_disc=version).pack()))
            while not (received := os.read(tun.fileno(), 2000)).endswith(
                    Bfd(my_disc=version).pack()):
                pass  # the kernel's own router solicitations
            assert received[0] >> 4 == version


# Transmission

IN4, IN6, L2 = 1, 2, 3  # packets by their discriminators


def add_packets(agent, link):
    for disc, version in ((IN4, 4), (IN6, 6)):
        set_packet(agent, version, link.packet(Bfd(my_disc=disc).pack(), version))
    frame = bfd.ethernet(link.far_mac, link.near_mac, link.packet(Bfd(my_disc=L2).pack()))
    agent.request(p.TX_SET_PACKET, p.tx_set_packet(
        L2, frame, type=p.TX_L2, ifindex=link.near_ifindex, ip_hdr_offset=14, latch_offset=42,
        period=5_000))


def expect_packets(link, *discs):
    link.wire.drain()
    for disc in discs:
        assert link.receive(disc), disc


def expect_errors(agent, *discs):
    for disc in discs:
        before = agent.stats(disc)[0].num_tx_errors
        wait_until(lambda: agent.stats(disc)[0].num_tx_errors > before, f"errors of packet {disc}")


def test_sending_while_an_interface_goes_down_and_comes_back(agent, link):
    with in_namespace(link.near_ns), \
            open(f"/proc/sys/net/ipv6/conf/{link.name}/keep_addr_on_down", "w") as keep:
        keep.write("1")
    add_packets(agent, link)
    expect_packets(link, IN4, IN6, L2)
    link.set("down")
    expect_errors(agent, IN4, IN6, L2)
    ip("-n", link.near_ns, "link", "set", link.name, "name", "renamed")
    ip("-n", link.near_ns, "link", "set", "renamed", "up")
    expect_packets(link, IN4, IN6, L2)
    ip("-n", link.near_ns, "link", "set", "renamed", "down")
    ip("-n", link.near_ns, "link", "set", "renamed", "name", link.name)
    ip_batch(link.near_ns, f"link set {link.name} up\nlink set {link.name} down\n" * 30)
    link.set_up("near")  # the kernel may have lost a route or address over this
    expect_packets(link, IN4, IN6, L2)


def test_sending_while_an_interface_moves_away_and_ends(agent, link, namespaces):
    elsewhere = namespaces.add()
    add_packets(agent, link)
    expect_packets(link, IN4, IN6, L2)
    ip("-n", link.near_ns, "link", "set", link.name, "netns", elsewhere)
    expect_errors(agent, IN4, IN6, L2)
    ip("-n", elsewhere, "link", "set", link.name, "netns", link.near_ns)
    assert index_of(link.near_ns, link.name) == link.near_ifindex
    link.set_up("near")
    expect_packets(link, IN4, IN6, L2)

    ip("-n", link.near_ns, "link", "delete", link.name)
    expect_errors(agent, IN4, IN6, L2)
    again = namespaces.link(link.near_ns, link.far_ns)
    expect_packets(again, IN4, IN6)
    if again.near_ifindex != link.near_ifindex:
        expect_errors(agent, L2)
