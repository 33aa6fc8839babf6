# SPDX-License-Identifier: GPL-2.0
"""kelm-agent's surroundings: kelm, namespaces and interfaces that come and go; other agents."""

import os
import pathlib
import re
import signal
import socket
import subprocess
import tempfile
import time
import urllib.request

import pytest

from lib import PATIENCE, wait_until
from lib import protocol as p
from lib.agent import Agent, discriminators
from lib.kelm_agent import KELM_AGENT, KelmAgent
from lib.topology import ip_batch

BOTH_ENDS_ARE_KELMS = True
MONITORING = pathlib.Path(__file__).parents[2] / "examples/monitoring"


def test_what_a_new_run_deletes(namespaces, link, start):
    """Sessions that are not configured any more; another agent's if it is told that there is none."""
    elsewhere = namespaces.add()
    for namespace in (link.near_ns, elsewhere):
        with Agent(namespace) as other:
            other.request(p.RX_SET_SESSION, p.rx_set_session(5, failure=p.failure_message(5)))
    agent = start(link.session(), link.session(name="old", peer="10.0.0.9"))
    own = agent.show()["discriminator"]
    both = {own, agent.show("old")["discriminator"], 5}
    wait_until(lambda: discriminators(link.near_ns) == both, "sessions")
    agent.configure([link.session()])
    agent.restart()
    wait_until(lambda: discriminators(link.near_ns) == {own, 5}, "end of the old one")
    agent.restart("--sole-agent")
    # Looking earlier would have kelm take us for an agent that needs the namespace.
    agent.wait_for_line("cleared kelm")
    assert discriminators(elsewhere) == set()
    assert discriminators(link.near_ns) == {own}


def test_restart_without_its_record(link, start):
    """The sessions are recognised by their packets' addresses."""
    near, far = (start(link.session(side)) for side in ("near", "far"))
    near.wait_for_change("up")
    far.wait_for_change("up")
    before = near.show()["discriminator"]
    (near.directory / "state.json").write_text("rubbish")
    near.restart()
    near.wait_for_line("still up")
    assert near.show()["discriminator"] == before
    assert far.show()["changes"]["down_count"] == 0


def test_an_interface_that_comes_later(link, start):
    near, far = start(link.session(interface="later")), start(link.session("far"))
    wait_until(lambda: near.show().get("problem") == "there is no interface later", "that problem")
    ip_batch(link.near_ns, f"link set {link.name} down\n"
                           f"link set {link.name} name later\nlink set later up\n")
    near.wait_for_state("up")
    far.wait_for_state("up")
    assert "problem" not in near.show()


def test_a_namespace_that_comes_later_and_again(namespaces, start):
    """Our connection does not keep the old one alive."""
    name = "kelm-e2e-later"
    agent = start({"name": "s", "namespace": name, "local": "10.0.0.1", "peer": "10.0.0.2"})
    for again in (True, False):
        wait_until(lambda: agent.show().get("problem") == "not connected to kelm", "that problem")
        namespaces.add(name)
        wait_until(lambda: agent.show()["discriminator"] in discriminators(name), "session")
        if again:
            namespaces.delete(name)


@pytest.mark.kelmd
def test_kelm_begins_anew(host, link, start):
    """The sessions go down, say why, and come up again."""
    # kelm is to be gone before a session fails in what is left of it.
    pair = [start(link.session(side, multiplier=50)) for side in ("near", "far")]
    for agent in pair:
        agent.wait_for_change("up")
    host.stop()
    for agent in pair:
        agent.wait_for_change("down")
    host.start()
    for agent in pair:
        agent.wait_for_state("up")
        first = next(h for h in agent.ctl("history s") if h["previous_state"] == "up")
        assert (first["diagnostic"], first["reason"]) == ("forwarding plane reset", "kelm is gone")


@pytest.mark.kelmd
def test_a_stopped_kelm_holds_nobody_up(host, start):
    """The agent answers while kelmd does not."""
    host.process.send_signal(signal.SIGSTOP)
    try:
        agent = start({"name": "s", "local": "127.0.0.1", "peer": "127.0.0.2"})
        began = time.monotonic()
        assert agent.show()["problem"] == "not connected to kelm"
        assert time.monotonic() - began < 5
    finally:
        host.process.send_signal(signal.SIGCONT)
    wait_until(lambda: "problem" not in agent.show(), "a connection")


def test_the_examples_of_the_manual():
    """Every kind of session, as a reader would copy it."""
    manual = pathlib.Path(__file__, "../../../docs/kelm-agent.toml.5").resolve().read_text()
    example = manual.split(".EX\n")[1].split(".EE")[0].replace("\\-", "-")
    with tempfile.TemporaryDirectory() as directory:
        config = pathlib.Path(directory, "agent.toml")
        config.write_text(example)
        explained = set(re.findall(r"^\.BR ([a-z-]+) \" =", manual.replace("\\-", "-"), re.M))
        assert len(explained) > 20 and all(f"{key} = " in example for key in explained)
        check = [KELM_AGENT, "--check", "--config", config]
        result = subprocess.run(check, capture_output=True, text=True)
        assert result.returncode == 1
        assert re.search(r"agent.toml:\d+: cannot open key file .*keys/2025", result.stderr)
        for key in re.findall(r'(?<!-)file = "(.*?)"', example):
            (config.parent / key).parent.mkdir(exist_ok=True)
            (config.parent / key).write_text("secret")
        result = subprocess.run(check, capture_output=True, text=True)
        assert result.returncode == 0, result.stderr
        assert "accessible to other users" in result.stderr
        assert f"{example.count('[[session]]') + 2} sessions" in result.stdout


def test_metrics(link, start):
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    with tempfile.TemporaryDirectory() as directory:
        file = pathlib.Path(directory, "kelm.prom")
        agent = start(link.session(), link.session(name="never", peer="10.0.0.9"),
                      agent={"metrics-file": str(file), "metrics-listen": f"127.0.0.1:{port}"})
        start(link.session("far"))
        agent.wait_for_change("up")
        with urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics", timeout=PATIENCE) as page:
            assert page.headers["Content-Type"].startswith("text/plain; version=0.0.4")
            text = page.read().decode()
        line = re.compile(r'^kelm_agent_session_\w+\{session="(s|never)",namespace="[\w-]+",'
                          r'peer="[\d.]+",type="single-hop"(,state="[\w-]+")?\} [\d.e+-]+$')
        samples = [row for row in text.splitlines() if row.startswith("kelm_agent_session_")]
        for sample in ('sessions{state="up"} 1', 'sessions{state="down"} 1',
                       f'connected{{namespace="{link.near_ns}"}} 1', "config_last_reload_successful 1"):
            assert f"\nkelm_agent_{sample}\n" in text
        assert f'kelm_agent_lost_sessions_total{{namespace="{link.near_ns}"}} 0' in text
        assert all(line.match(row) for row in samples), text
        series = {name: sorted(row.split("{")[0] for row in samples if f'"{name}"' in row)
                  for name in ("s", "never")}
        assert series["s"] == series["never"], "every series exists in every state"
        assert f'kelm_agent_session_up{{session="s",namespace="{link.near_ns}",peer="10.0.0.2",' \
               'type="single-hop"} 1' in samples
        assert set(row.split()[2] for row in file.read_text().splitlines() if "# TYPE" in row) == \
            set(row.split()[2] for row in text.splitlines() if "# TYPE" in row)
        queried = {name for example in MONITORING.iterdir()
                   for name in re.findall(r"kelm_agent_\w+", example.read_text())}
        assert queried <= {row.split()[2] for row in text.splitlines() if "# TYPE" in row}
        with pytest.raises(urllib.error.HTTPError, match="404"):
            urllib.request.urlopen(f"http://127.0.0.1:{port}/", timeout=PATIENCE)


def test_systemd_is_told(tmp_path):
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
        manager.bind(str(tmp_path / "notify"))
        manager.settimeout(PATIENCE)
        agent = KelmAgent([], env={**os.environ, "NOTIFY_SOCKET": str(tmp_path / "notify"),
                                   "WATCHDOG_USEC": "200000"})
        told = [manager.recv(4096) for _ in range(4)]
        agent.close()
    assert told.count(b"READY=1") == 1 and told.count(b"WATCHDOG=1") >= 3
