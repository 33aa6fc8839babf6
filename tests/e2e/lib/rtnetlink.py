# SPDX-License-Identifier: GPL-2.0
"""Interfaces, addresses and neighbours; see netns.py for why this is not left to `ip`."""

import os
import socket
import struct

from .netns import in_namespace
from .protocol import NLM_F_ACK, NLM_F_REQUEST, message, parse

_NLM_F_REPLACE, _NLM_F_EXCL, _NLM_F_CREATE = 0x100, 0x200, 0x400
_RTM_NEWLINK, _RTM_NEWADDR, _RTM_NEWNEIGH = 16, 20, 28
_IFLA_ADDRESS, _IFLA_IFNAME, _IFLA_LINKINFO, _IFLA_NET_NS_FD = 1, 3, 18, 28
_IFLA_INFO_KIND, _IFLA_INFO_DATA, _VETH_INFO_PEER = 1, 2, 1
_IFA_ADDRESS, _IFA_LOCAL, _IFA_F_NODAD = 1, 2, 0x02
_NDA_DST, _NDA_LLADDR, _NUD_PERMANENT = 1, 2, 0x80
_IFF_UP = 1


def _attribute(type, value):
    if isinstance(value, int):
        value = struct.pack("=I", value)
    return struct.pack("=HH", 4 + len(value), type) + value + bytes(-len(value) % 4)


def _mac(text):
    return bytes.fromhex(text.replace(":", ""))


def _address(text):
    """(family, bytes)"""
    family = socket.AF_INET6 if ":" in text else socket.AF_INET
    return family, socket.inet_pton(family, text)


def _request(namespace, type, body, flags=0):
    with in_namespace(namespace):
        sock = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, socket.NETLINK_ROUTE)
    with sock:
        sock.send(message(type, body, NLM_F_REQUEST | NLM_F_ACK | flags))
        (answer,) = parse(sock.recv(1 << 16))
    (error,) = struct.unpack_from("=i", answer.body)
    if error:
        raise OSError(-error, os.strerror(-error))


def ifindex(namespace, interface):
    with in_namespace(namespace):
        return socket.if_nametoindex(interface)


def _link(index=0, flags=0, change=0):
    return struct.pack("=BxHiII", socket.AF_UNSPEC, 0, index, flags, change)


def add_veth(name, *ends):
    """ends: (namespace, MAC address) of each."""
    (near, near_mac), (far, far_mac) = ends

    def end(mac):
        return _attribute(_IFLA_IFNAME, name.encode() + b"\0") + _attribute(_IFLA_ADDRESS, _mac(mac))

    with open(f"/run/netns/{far}") as there:
        peer = _link() + end(far_mac) + _attribute(_IFLA_NET_NS_FD, there.fileno())
        veth = _attribute(_IFLA_INFO_KIND, b"veth") + \
            _attribute(_IFLA_INFO_DATA, _attribute(_VETH_INFO_PEER, peer))
        _request(near, _RTM_NEWLINK, _link() + end(near_mac) + _attribute(_IFLA_LINKINFO, veth),
                 _NLM_F_CREATE | _NLM_F_EXCL)


def set_link(namespace, interface, up):
    _request(namespace, _RTM_NEWLINK,
             _link(ifindex(namespace, interface), _IFF_UP if up else 0, _IFF_UP))


def replace_address(namespace, interface, address, prefix):
    family, packed = _address(address)
    flags = _IFA_F_NODAD if family == socket.AF_INET6 else 0
    body = struct.pack("=BBBBi", family, prefix, flags, 0, ifindex(namespace, interface))
    _request(namespace, _RTM_NEWADDR, body + _attribute(_IFA_LOCAL, packed) +
             _attribute(_IFA_ADDRESS, packed), _NLM_F_CREATE | _NLM_F_REPLACE)


def replace_neighbour(namespace, interface, address, mac):
    """One that is known for good."""
    family, packed = _address(address)
    body = struct.pack("=BxxxiHBB", family, ifindex(namespace, interface), _NUD_PERMANENT, 0, 0)
    _request(namespace, _RTM_NEWNEIGH, body + _attribute(_NDA_DST, packed) +
             _attribute(_NDA_LLADDR, _mac(mac)), _NLM_F_CREATE | _NLM_F_REPLACE)
