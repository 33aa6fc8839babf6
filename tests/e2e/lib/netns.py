# SPDX-License-Identifier: GPL-2.0
"""Network namespaces, as `ip netns` has them, without a process for each step: to start one takes a
tenth of a second where processors are emulated."""

import contextlib
import ctypes
import os

_libc = ctypes.CDLL(None, use_errno=True)
_CLONE_NEWNET = 0x40000000
_CLONE_NEWUSER = 0x10000000
_MS_BIND, _MS_REC, _MS_SHARED, _MNT_DETACH = 0x1000, 0x4000, 1 << 20, 2


def _call(name, *arguments):
    if getattr(_libc, name)(*arguments) != 0:
        number = ctypes.get_errno()
        raise OSError(number, f"{name}: {os.strerror(number)}")


@contextlib.contextmanager
def in_namespace(name):
    """Sockets and children made inside belong to the namespace; None is the one we are in."""
    if name is None:
        yield
        return
    with _back_home():
        enter(name)
        yield


@contextlib.contextmanager
def _back_home():
    with open("/proc/thread-self/ns/net") as home:
        try:
            yield
        finally:
            _call("setns", home.fileno(), _CLONE_NEWNET)


def enter(name):
    """Enters the namespace for good: for a child process."""
    with open(f"/run/netns/{name}") as there:
        _call("setns", there.fileno(), _CLONE_NEWNET)


def unshare_user():
    """Enters a user namespace of one's own, and has every capability there, for good."""
    _call("unshare", _CLONE_NEWUSER)


def unshare_network():
    """Enters a network namespace of one's own, for good."""
    _call("unshare", _CLONE_NEWNET)


def _share_directory():
    """As `ip netns` wants it: else it would mount the directory over what is mounted in it."""
    os.makedirs("/run/netns", exist_ok=True)
    share = b"", b"/run/netns", b"none", _MS_SHARED | _MS_REC, None
    try:
        _call("mount", *share)
    except OSError:  # not a mount point yet
        _call("mount", b"/run/netns", b"/run/netns", b"none", _MS_BIND | _MS_REC, None)
        _call("mount", *share)


def add(name):
    """As `ip netns add` does it."""
    path = f"/run/netns/{name}"
    _share_directory()
    os.close(os.open(path, os.O_CREAT | os.O_EXCL))
    with _back_home():
        unshare_network()
        _call("mount", b"/proc/thread-self/ns/net", path.encode(), None, _MS_BIND, None)


def delete(name):
    path = f"/run/netns/{name}"
    _call("umount2", path.encode(), _MNT_DETACH)
    os.unlink(path)


def sysctl(namespace, **settings):
    """Below net/; names have '__' for '/'."""
    with in_namespace(namespace):
        for name, value in settings.items():
            with open("/proc/sys/net/" + name.replace("__", "/"), "w") as file:
                file.write(str(value))
