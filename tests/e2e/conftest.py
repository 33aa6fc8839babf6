# SPDX-License-Identifier: GPL-2.0

import os

import pytest

from lib import protocol
from lib.agent import KERNEL, Agent
from lib.host import Host
from lib.kelm_agent import KelmAgent
from lib.kernel import KernelLog
from lib.stall import Stall
from lib.topology import Namespaces


def pytest_configure(config):
    config.addinivalue_line("markers", "kelmd: about kelmd itself; left out on another host")
    config.addinivalue_line("markers", "kernel: about the kernel as host; left out on another")
    config.addinivalue_line("markers", "stalls_below(seconds): says nothing on a machine that "
                                       "stood still for longer")


def pytest_collection_modifyitems(config, items):
    elsewhere = "kelmd" if KERNEL else "kernel"
    config.hook.pytest_deselected(items=[i for i in items if i.get_closest_marker(elsewhere)])
    items[:] = [item for item in items if not item.get_closest_marker(elsewhere)]


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
def unloaded_host(host):
    """The module's host, not loaded; it is again afterwards, as others expect it."""
    host.unload()
    yield host
    if host.loaded():
        host.unload()
    host.load()


@pytest.fixture
def namespaces(host):
    namespaces = Namespaces(host)
    yield namespaces
    namespaces.close()


@pytest.fixture
def link(namespaces, request):
    """Namespaces of this test alone, with a veth between them: kelm's near end, and a peer's far one,
    or kelm's too where the file says so."""
    if getattr(request.module, "BOTH_ENDS_ARE_KELMS", False):
        return namespaces.link(namespaces.add(), namespaces.add())
    return namespaces.link()


@pytest.fixture
def agent(link):
    """An agent at the near end that hears everything; transmission is allowed."""
    with Agent(link.near_ns, groups=(protocol.CONTROL, protocol.NOTIFICATION)) as agent:
        agent.request(protocol.TX_PATH_READY, protocol.tx_path_ready())
        yield agent


@pytest.fixture
def start():
    """Starts kelm-agents, with these sessions, that end with the test."""
    running = []

    def start_one(*sessions, **options):
        running.append(KelmAgent(sessions, **options))
        return running[-1]

    yield start_one
    for agent in running:
        agent.close()


@pytest.fixture(autouse=True)
def stall(request):
    """Of a test that a machine which stands still lets fail."""
    if not request.node.get_closest_marker("stalls_below"):
        yield
        return
    with Stall() as request.node.stall:
        yield


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    report = (yield).get_result()
    limit = item.get_closest_marker("stalls_below")
    if limit and report.failed and (longest := item.stall.longest) > limit.args[0]:
        print(report.longreprtext)
        report.outcome = "skipped"
        report.longrepr = (item.location[0], item.location[1] + 1,
                           f"failed, but this machine stood still for {longest:.1f} s")


@pytest.fixture(autouse=True)
def nothing_left_behind():
    yield
    if not KERNEL:
        assert os.listdir("/run/netns") == []


@pytest.fixture(autouse=KERNEL)
def kernel_log():
    """What the kernel says during a test; it must not complain, whatever the test is about."""
    with KernelLog() as log:
        yield log
        log.check()
