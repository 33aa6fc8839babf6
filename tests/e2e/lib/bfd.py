# SPDX-License-Identifier: GPL-2.0
"""BFD control packets and their authentication (RFC 5880), and the headers below them."""

import hashlib
import ipaddress
import struct
from dataclasses import dataclass, field, replace

ADMIN_DOWN, DOWN, INIT, UP = range(4)
DIAG_NONE, DIAG_CTRL_TIMEOUT, DIAG_ECHO_FAIL, DIAG_NEIGH_DOWN = 0, 1, 2, 3
DIAG_FORWARDING_RESET, DIAG_PATH_DOWN, DIAG_ADMIN_DOWN = 4, 5, 7
POLL, FINAL, CPI, AUTH, DEMAND, MULTIPOINT = 0x20, 0x10, 0x08, 0x04, 0x02, 0x01
PASSWORD, KEYED_MD5, METICULOUS_MD5, KEYED_SHA1, METICULOUS_SHA1, DEBUG_SEQNUM = 1, 2, 3, 4, 5, 255
DIGESTS = {KEYED_MD5: ("md5", 16), METICULOUS_MD5: ("md5", 16),
           KEYED_SHA1: ("sha1", 20), METICULOUS_SHA1: ("sha1", 20)}


@dataclass(frozen=True)
class Bfd:
    """A control packet; `auth` is the authentication section as it is on the wire."""
    my_disc: int = 1
    your_disc: int = 0
    state: int = UP
    diag: int = DIAG_NONE
    flags: int = 0
    multiplier: int = 3
    min_tx: int = 100_000
    min_rx: int = 100_000
    min_echo_rx: int = 0
    version: int = 1
    auth: bytes = b""
    length: int = field(default=-1, compare=False)

    def pack(self):
        length = 24 + len(self.auth) if self.length < 0 else self.length
        flags = self.flags | (AUTH if self.auth else 0)
        return struct.pack("!BBBBIIIII", self.version << 5 | self.diag, self.state << 6 | flags,
                           self.multiplier, length, self.my_disc, self.your_disc, self.min_tx,
                           self.min_rx, self.min_echo_rx) + self.auth

    @classmethod
    def parse(cls, data):
        first, second, mult, length, my, your, tx, rx, echo = struct.unpack_from("!BBBBIIIII", data)
        return cls(my, your, second >> 6, first & 0x1F, second & 0x3F, mult, tx, rx, echo,
                   first >> 5, bytes(data[24:length]), length)

    def but(self, **changes):
        return replace(self, **changes)


def auth_section(type, *, key_id=1, seq=0, secret=b""):
    """A section without its digest: with the password, or with the key where the digest goes."""
    if type == PASSWORD:
        return struct.pack("BBB", type, 3 + len(secret), key_id) + secret
    if type == DEBUG_SEQNUM:
        return struct.pack("!BBHI", type, 8, 0, seq)
    _, size = DIGESTS[type]
    return struct.pack("!BBBxI", type, 8 + size, key_id, seq) + secret.ljust(size, b"\0")[:size]


def seq_of(packet):
    return struct.unpack_from("!I", packet, 28)[0]


def digest_of(packet, secret):
    """The digest that a packet with this key must carry."""
    algorithm, size = DIGESTS[packet[24]]
    keyed = packet[:32] + secret.ljust(size, b"\0")[:size] + packet[32 + size:packet[3]]
    return hashlib.new(algorithm, keyed, usedforsecurity=False).digest()


def signed(bfd, type, *, key_id=1, seq=1, secret=b"secret"):
    """The bytes of a packet that is authenticated in full."""
    packet = bfd.but(auth=auth_section(type, key_id=key_id, seq=seq, secret=secret)).pack()
    if type not in DIGESTS:
        return packet
    return packet[:32] + digest_of(packet, secret) + packet[32 + DIGESTS[type][1]:]


def correctly_signed(packet, secret):
    return packet[32:packet[3]] == digest_of(packet, secret)


def checksum(data):
    data += b"\0" * (len(data) % 2)
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    while total > 0xFFFF:
        total = (total & 0xFFFF) + (total >> 16)
    return total ^ 0xFFFF


def _pseudo_header(src, dst, length):
    if src.version == 4:
        return src.packed + dst.packed + struct.pack("!BBH", 0, 17, length)
    return src.packed + dst.packed + struct.pack("!II", length, 17)


def ip_datagram(src, dst, payload, *, ttl=255, sport=49152, dport=3784, udp_checksum=None):
    """An IP datagram, complete, as kelm is to send it or as the peer puts it on the wire."""
    src, dst = ipaddress.ip_address(src), ipaddress.ip_address(dst)
    length = 8 + len(payload)
    udp = struct.pack("!HHHH", sport, dport, length, 0) + payload
    if udp_checksum is None:
        udp_checksum = checksum(_pseudo_header(src, dst, length) + udp) or 0xFFFF
    udp = udp[:6] + struct.pack("!H", udp_checksum) + udp[8:]
    if src.version == 4:
        header = struct.pack("!BBHHHBBH", 0x45, 0xC0, 20 + length, 0, 0, ttl, 17, 0) + \
            src.packed + dst.packed
        header = header[:10] + struct.pack("!H", checksum(header)) + header[12:]
    else:
        header = struct.pack("!IHBB", 0x6C000000, length, 17, ttl) + src.packed + dst.packed
    return header + udp


def ethernet(dst, src, datagram):
    ethertype = 0x0800 if datagram[0] >> 4 == 4 else 0x86DD
    return bytes.fromhex(dst.replace(":", "") + src.replace(":", "")) + \
        struct.pack("!H", ethertype) + datagram


@dataclass(frozen=True)
class Frame:
    """A UDP datagram as seen on the wire."""
    time: float  # seconds, wall clock of the receiving kernel
    src: str
    dst: str
    ttl: int
    sport: int
    dport: int
    checksum_ok: bool
    payload: bytes
    raw: bytes

    @property
    def bfd(self):
        return Bfd.parse(self.payload)


def parse_frame(raw, time=0.0):
    """The UDP datagram in an Ethernet frame, or None if it holds none."""
    version, ip = (raw[14] >> 4 if len(raw) > 34 else 0), raw[14:]
    if version == 4 and ip[9] == 17:
        ttl, header, addresses = ip[8], 4 * (ip[0] & 15), (ip[12:16], ip[16:20])
    elif version == 6 and len(ip) >= 48 and ip[6] == 17:
        ttl, header, addresses = ip[7], 40, (ip[8:24], ip[24:40])
    else:
        return None
    src, dst = map(ipaddress.ip_address, addresses)
    udp = ip[header:]
    sport, dport, length, carried = struct.unpack_from("!HHHH", udp)
    udp = udp[:length]
    good = checksum(_pseudo_header(src, dst, length) + udp) == 0 and carried != 0
    return Frame(time, str(src), str(dst), ttl, sport, dport, good, bytes(udp[8:]), bytes(raw))
