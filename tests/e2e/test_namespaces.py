# SPDX-License-Identifier: GPL-2.0
"""Namespaces come and go, with sessions, dumps and agents in them."""

import contextlib
import struct
import subprocess
import threading

import pytest

from lib import wait_until
from lib import protocol as p
from lib.agent import Agent, start_session
from lib.netns import in_namespace


def wait_gone(link):
    wait_until(lambda: not link.exists(), "end of the namespace")


def test_a_namespace_goes_while_its_sessions_run(link, namespaces):
    start_session(link)
    link.receive(7)
    namespaces.delete(link.near_ns)
    wait_gone(link)


@contextlib.contextmanager
def thread_in(name):
    """A thread of ours lives in the namespace; its process does not."""
    inside, leave = threading.Event(), threading.Event()

    def live():
        with in_namespace(name):
            inside.set()
            leave.wait()

    thread = threading.Thread(target=live)
    thread.start()
    inside.wait()
    yield
    leave.set()
    thread.join()


@pytest.mark.parametrize("holder", ["process", "thread", "agent", "dump"])
def test_a_namespace_lives_as_long_as_somebody_is_in_it(link, namespaces, holder):
    start_session(link)
    with contextlib.ExitStack() as stack:
        if holder == "process":
            with in_namespace(link.near_ns):
                process = subprocess.Popen(["sleep", "1000"])
            stack.callback(process.wait)
            stack.callback(process.kill)
        elif holder == "thread":
            stack.enter_context(thread_in(link.near_ns))
        else:
            agent = stack.enter_context(Agent(link.near_ns))
            if holder == "dump":
                for disc in range(1000, 1500):
                    agent.request(p.RX_SET_SESSION, p.rx_set_session(disc))
                agent.start_dump(p.GET_STATS, p.get_stats(flags=p.STATS_ALL_VRFS))
        namespaces.delete(link.near_ns)
        link.collect(100, 7)
        assert link.exists()
    wait_gone(link)


def test_a_latch_link_to_a_namespace_that_goes(link, namespaces):
    """A session may hold a packet of another namespace; the packet's end must not hurt it."""
    other = namespaces.link(n=1)
    start_session(link)
    with Agent(other.near_ns, groups=[p.NOTIFICATION]) as agent:
        agent.request(p.RX_SET_SESSION, p.rx_set_session(9, latch=(7,)))
        namespaces.delete(link.near_ns)
        wait_gone(link)
        agent.request(p.RX_SET_SESSION, p.rx_set_session(
            8, flags=p.TIMER_ACTIVE, period=10_000, failure=p.failure_message(8)))
        assert agent.event(p.SESSION_FAILURE, 8)
        agent.request(p.RX_DELETE_SESSION, struct.pack("=I", 9))


def test_all_namespaces_are_dumped_newest_first(link, namespaces):
    older, newer = link.near_ns, namespaces.add()
    for number, name in enumerate((older, newer)):
        with Agent(name) as agent:
            agent.request(p.RX_SET_SESSION, p.rx_set_session(100 + number))
    with Agent(older) as agent:
        found = [s.disc for s in agent.stats(flags=p.STATS_ALL_VRFS) if s.disc in (100, 101)]
    assert found == [101, 100]


def test_namespaces_come_and_go_during_dumps_of_all(host, namespaces):
    with Agent() as agent:
        for _ in range(10):
            names = [namespaces.add(wait=False) for _ in range(5)]
            for name in names[::2]:
                host.wait_for_vrf(name)
                with Agent(name) as inside:
                    for disc in range(1, 60):
                        inside.request(p.RX_SET_SESSION, p.rx_set_session(disc))
            seq = agent.start_dump(p.GET_STATS, p.get_stats(flags=p.STATS_ALL_VRFS |
                                                            p.STATS_MODULE))
            for name in names:
                namespaces.delete(name)
            agent.finish_dump(seq)


@pytest.mark.kelmd
def test_a_second_name_is_not_a_second_namespace(host, namespaces):
    """Nor is a name of the initial namespace."""
    def vrfs():
        with Agent() as agent:
            found = agent.stats(flags=p.STATS_ALL_VRFS | p.STATS_MODULE)
            return sum(hasattr(stats, "rfc_drops") for stats in found)

    wait_until(lambda: vrfs() == 1, "end of other tests' namespaces")
    name = namespaces.add()
    for alias, target in (("alias", f"/run/netns/{name}"), ("home", "/proc/self/ns/net")):
        open(f"/run/netns/{alias}", "w").close()
        subprocess.run(["mount", "--bind", target, f"/run/netns/{alias}"], check=True)
        namespaces.names.append(alias)
    namespaces.add()  # when it has been seen, so has what came before it
    assert vrfs() == 3
    # The namespace stays while one of its names does.
    namespaces.delete(name)
    with Agent("alias") as agent:
        agent.request(p.RX_SET_SESSION, p.rx_set_session(1))
    assert vrfs() == 3
