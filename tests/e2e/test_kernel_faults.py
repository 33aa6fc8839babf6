# SPDX-License-Identifier: GPL-2.0
"""Each of the kernel's services that kelm.ko calls fails in turn: with its test build, whose
parameter fail_at says at which call from now on."""

import contextlib
import errno
import itertools
import os
import subprocess

import pytest

from lib import bfd, kernel, netns, wait_until
from lib import protocol as p
from lib.agent import Agent
from lib.bfd import Bfd

pytestmark = pytest.mark.kernel

FAULTY_MODULE = os.environ.get("KELM_MODULE_FAULTS", "kelm-faults.ko")
NLMSG_NOOP = 1
FAIL_AT = "/sys/module/kelm/parameters/fail_at"


def arm(calls):
    with open(FAIL_AT, "w") as fail_at:
        fail_at.write(str(calls))


def failed():
    """Whether the call at which to fail has come."""
    with open(FAIL_AT) as fail_at:
        return int(fail_at.read()) == 0


def each_failure(action):
    """Has the first, second, third ... call that the action makes fail, until there is none left;
    yields what the action returned each time."""
    for calls in itertools.count(1):
        arm(calls)
        outcome = action()
        if not failed():
            arm(0)
            assert calls > 1, "nothing could fail"
            return
        yield outcome


@pytest.fixture
def faulty(unloaded_host):
    unloaded_host.load(FAULTY_MODULE)
    return unloaded_host


def test_a_load(unloaded_host, kernel_log):
    """Without its notifier or its thread there is no module; without a vrf there is one."""
    def left():
        return unloaded_host.loaded(), kernel.sockets(), kernel.threads()

    nothing = (False, [], 0)
    assert left() == nothing
    leaks = kernel.leaks()
    refused, without_vrf = [], []
    for calls in itertools.count(1):
        try:
            unloaded_host.load(FAULTY_MODULE, fail_at=calls)
        except subprocess.CalledProcessError:
            refused.append(calls)
        else:
            if not failed():
                assert kernel.sockets() == kernel.OF_A_VRF
                break
            without_vrf.append(calls)
            assert kernel.sockets() == []
            unloaded_host.unload()
        assert left() == nothing, f"after call {calls} failed"
    unloaded_host.unload()
    assert kernel.leaks() == leaks
    assert refused == [1, calls - 1] and len(without_vrf) > len(kernel.OF_A_VRF)
    assert kernel_log.text().count("Unable to create vrf") == len(without_vrf)


def test_a_namespace(faulty, kernel_log):
    """One that gets no vrf is as others are, and the next one gets its own."""
    number = itertools.count()

    def add():
        name = f"kelm-e2e-fault-{next(number)}"
        netns.add(name)
        try:
            with Agent(name) as agent, contextlib.suppress(ConnectionRefusedError):
                agent.send(p.message(NLMSG_NOOP))
                assert not failed()
            return kernel.sockets(name)
        finally:
            netns.delete(name)

    outcomes = list(each_failure(add))
    assert outcomes == [[]] * len(outcomes) and len(outcomes) > len(kernel.OF_A_VRF)
    assert kernel_log.text().count("Unable to create vrf") == len(outcomes)
    wait_until(lambda: kernel.only_empty_vrfs(1), "end of the vrfs")


@pytest.fixture
def faulty_link(faulty, namespaces):
    return namespaces.link()


def test_requests_and_datagrams(faulty_link):
    link = faulty_link
    with Agent(link.near_ns, groups=[p.CONTROL]) as agent:
        def request(type, body):
            try:
                if type in (p.GET_STATS, p.SYNC):
                    agent.dump(type, body)
                else:
                    agent.request(type, body)
            except p.KelmError as error:
                return error.errno
            return 0

        section = bfd.auth_section(bfd.KEYED_SHA1)
        long_packet = link.packet(Bfd(my_disc=7, auth=section).pack(), 6)  # not within the record
        requests = [(p.TX_PATH_READY, p.tx_path_ready()),
                    (p.TX_SET_PACKET, p.tx_set_packet(7, long_packet, period=5_000_000,
                                                      latch_offset=48, auth_type=bfd.KEYED_SHA1,
                                                      auth_hdr=section)),
                    (p.RX_SET_SESSION, p.rx_set_session(7, latch=(7,), failure=b"x" * 99)),
                    (p.GET_STATS, p.get_stats(flags=p.STATS_ALL_VRFS)),
                    (p.SYNC, p.sync())]
        for arguments in requests:
            assert request(*arguments) == 0
        before = kernel.allocations()
        for arguments in requests[1:]:
            outcomes = set(each_failure(lambda: request(*arguments)))
            assert outcomes <= {errno.ENOMEM, 0}, arguments
        assert kernel.allocations() == before

        def receive():
            """The next of different packets, unless it is lost; none waits in the socket."""
            sent = next(packets)
            link.send(sent)

            def has_come():
                event = agent.event(p.RX_PACKET_CHANGE, timeout=0.1)
                return event and p.decode(event).frame.endswith(sent.pack())

            wait_until(lambda: failed() or has_come(), "the datagram")

        packets = (Bfd(your_disc=7, min_rx=number) for number in itertools.count(1))
        lost = len(list(each_failure(receive)))
        assert lost >= 2  # the event, and its way to the agent
        link.send(Bfd(your_disc=7, min_rx=1_000_000))
        while p.decode(agent.event()).frame[-24:] != Bfd(your_disc=7, min_rx=1_000_000).pack():
            pass
        assert agent.module_stats().rx_packet_missing == 0

        link.lose()  # kelm serves the far end too: what fails is to be a sending, not a reception
        packet = link.packet(Bfd(my_disc=7).pack())
        agent.request(p.TX_SET_PACKET, p.tx_set_packet(7, packet, period=5_000))
        link.wire.drain()
        link.receive(7)
        arm(1)
        wait_until(failed, "a failure to send")
        link.wire.drain()
        link.collect(5, 7)
        assert agent.stats(7)[0].num_tx_errors > 0
