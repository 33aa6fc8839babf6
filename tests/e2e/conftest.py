# SPDX-License-Identifier: GPL-2.0

import os

import pytest

from lib import protocol
from lib.agent import KERNEL, Agent
from lib.host import Host
from lib.topology import Namespaces


def pytest_configure(config):
    config.addinivalue_line("markers", "kelmd: about kelmd itself; left out on another host")


def pytest_collection_modifyitems(config, items):
    if KERNEL:
        config.hook.pytest_deselected([i for i in items if i.get_closest_marker("kelmd")])
        items[:] = [item for item in items if not item.get_closest_marker("kelmd")]


@pytest.fixture(scope="module")
def shared_host():
    host = Host()
    yield host
    host.close()


@pytest.fixture
def host(shared_host):
    """One host for the tests of a file; what is module-wide may have been touched by others."""
    yield shared_host
    shared_host.check()


@pytest.fixture
def fresh_host():
    """A host that nobody has talked to."""
    host = Host()
    yield host
    host.close()


@pytest.fixture
def namespaces(host):
    namespaces = Namespaces(host)
    yield namespaces
    namespaces.close()


@pytest.fixture
def link(namespaces):
    """Namespaces of this test alone, with a veth between them: kelm's near end, a peer's far."""
    return namespaces.link()


@pytest.fixture
def agent(link):
    """An agent at the near end that hears everything; transmission is allowed."""
    with Agent(link.near_ns, groups=(protocol.CONTROL, protocol.NOTIFICATION)) as agent:
        agent.request(protocol.TX_PATH_READY, protocol.tx_path_ready())
        yield agent


@pytest.fixture(autouse=True)
def nothing_left_behind():
    yield
    if not KERNEL:
        assert os.listdir("/run/netns") == []
