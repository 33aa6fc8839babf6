# SPDX-License-Identifier: GPL-2.0
"""kelm-agent's surroundings: kelm, namespaces and interfaces that come and go; other agents."""

import os
import pathlib
import re
import socket
import subprocess
import tempfile
import urllib.request

import pytest

from lib import PATIENCE, wait_until
from lib import protocol as p
from lib.agent import Agent
from lib.host import KELMCTL
from lib.kelm_agent import KELM_AGENT, KelmAgent
from lib.topology import ip

BOTH_ENDS_ARE_KELMS = True


@pytest.fixture
def start():
    running = []

    def start_one(*sessions, arguments=(), agent=None, directory=None):
        running.append(KelmAgent(sessions, *arguments, agent=agent, directory=directory,
                                 min_tx="50ms", min_rx="50ms", multiplier=20))
        return running[-1]

    yield start_one
    for agent in running:
        agent.close()


def end(link, side="near", **keys):
    near, far = link.addresses(4)
    local, peer = (near, far) if side == "near" else (far, near)
    return {"name": "s", "namespace": getattr(link, f"{side}_ns"), "local": local, "peer": peer,
            "interface": link.name, **keys}


def discriminators(namespace):
    with Agent(namespace) as admin:
        return {m.disc for m in admin.dump(p.SYNC, p.sync())}


def test_another_agents_sessions_are_left_alone(link, start):
    with Agent(link.near_ns) as other:
        other.request(p.RX_SET_SESSION, p.rx_set_session(5, failure=p.failure_message(5)))
        agent, _ = start(end(link)), start(end(link, "far"))
        agent.wait_for_change("up")
        agent.kill()
        agent.start()
        agent.wait_for_state("up")
        assert 5 in discriminators(link.near_ns)


def test_the_sole_agent_clears_what_is_not_its_own(namespaces, link, start):
    elsewhere = namespaces.add()
    for namespace in (link.near_ns, elsewhere):
        with Agent(namespace) as other:
            other.request(p.RX_SET_SESSION, p.rx_set_session(5, failure=p.failure_message(5)))
    agent = start(end(link), arguments=["--sole-agent"])
    # Looking earlier would have kelm take us for an agent that needs the namespace.
    agent.wait_for(lambda line: line["message"].startswith("cleared kelm"), "sweep")
    assert discriminators(elsewhere) == set()
    assert discriminators(link.near_ns) == {agent.show()["discriminator"]}


def test_sessions_that_are_no_longer_configured_are_deleted(link, start):
    agent = start(end(link), end(link, name="old", peer="10.0.0.9"))
    old = agent.show("old")["discriminator"]
    assert wait_until(lambda: old in discriminators(link.near_ns), "session")
    agent.kill()
    agent.configure([end(link)])
    agent.start()
    wait_until(lambda: old not in discriminators(link.near_ns), "its end")
    assert agent.show()["discriminator"] in discriminators(link.near_ns)


def test_restart_without_its_record(link, start):
    """The sessions are recognised by their packets' addresses."""
    near, far = start(end(link)), start(end(link, "far"))
    near.wait_for_change("up")
    far.wait_for_change("up")
    before = near.show()["discriminator"]
    near.kill()
    (near.directory / "state.json").write_text("rubbish")
    near.start()
    near.wait_for(lambda line: "still up" in line["message"], "'still up'")
    assert near.show()["discriminator"] == before
    assert far.show()["changes"]["down_count"] == 0


def test_an_interface_that_comes_later(link, start):
    near, far = start(end(link, interface="later")), start(end(link, "far"))
    wait_until(lambda: near.show().get("problem") == "there is no interface later", "that problem")
    ip("-n", link.near_ns, "link", "set", link.name, "down")
    ip("-n", link.near_ns, "link", "set", link.name, "name", "later")
    ip("-n", link.near_ns, "link", "set", "later", "up")
    near.wait_for_state("up")
    far.wait_for_state("up")
    assert "problem" not in near.show()


def test_a_namespace_that_comes_later(namespaces, start):
    agent = start({"name": "s", "namespace": "kelm-e2e-later", "local": "10.0.0.1",
                   "peer": "10.0.0.2"})
    assert agent.show()["problem"] == "not connected to kelm"
    namespaces.add("kelm-e2e-later")
    wait_until(lambda: agent.show()["discriminator"] in
               discriminators_or_none("kelm-e2e-later"), "session in the new namespace")


def discriminators_or_none(namespace):
    try:
        return discriminators(namespace)
    except ConnectionRefusedError:
        return set()


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
        agent = start(end(link), end(link, name="never", peer="10.0.0.9"),
                      agent={"metrics-file": str(file), "metrics-listen": f"127.0.0.1:{port}"})
        start(end(link, "far"))
        agent.wait_for_change("up")
        with urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics", timeout=PATIENCE) as page:
            assert page.headers["Content-Type"].startswith("text/plain; version=0.0.4")
            text = page.read().decode()
        line = re.compile(r'^kelm_agent_session_\w+\{session="(s|never)",namespace="[\w-]+",'
                          r'peer="[\d.]+",type="single-hop"(,state="[\w-]+")?\} [\d.e+-]+$')
        samples = [row for row in text.splitlines() if row.startswith("kelm_agent_session_")]
        assert f'kelm_agent_lost_sessions_total{{namespace="{link.near_ns}"}} 0' in text
        assert all(line.match(row) for row in samples), text
        series = {name: sorted(row.split("{")[0] for row in samples if f'"{name}"' in row)
                  for name in ("s", "never")}
        assert series["s"] == series["never"], "every series exists in every state"
        assert f'kelm_agent_session_up{{session="s",namespace="{link.near_ns}",peer="10.0.0.2",' \
               'type="single-hop"} 1' in samples
        assert set(row.split()[2] for row in file.read_text().splitlines() if "# TYPE" in row) == \
            set(row.split()[2] for row in text.splitlines() if "# TYPE" in row)
        with pytest.raises(urllib.error.HTTPError, match="404"):
            urllib.request.urlopen(f"http://127.0.0.1:{port}/", timeout=PATIENCE)


def test_a_mistake_in_the_defaults_is_told_with_its_line():
    with tempfile.TemporaryDirectory() as directory:
        config = pathlib.Path(directory, "agent.toml")
        config.write_text('[defaults]\n\nmin-rx = "5"\n[[session]]\nname = "s"\n'
                          'local = "10.0.0.1"\npeer = "10.0.0.2"\n')
        result = subprocess.run([KELM_AGENT, "--check", "--config", config], capture_output=True,
                                text=True)
    assert result.returncode == 1 and "agent.toml:3: 'min-rx' must be" in result.stderr


def test_systemd_is_told(tmp_path):
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
        manager.bind(str(tmp_path / "notify"))
        manager.settimeout(PATIENCE)
        agent = KelmAgent([], env={**os.environ, "NOTIFY_SOCKET": str(tmp_path / "notify"),
                                   "WATCHDOG_USEC": "200000"})
        told = [manager.recv(4096) for _ in range(4)]
        agent.close()
    assert told.count(b"READY=1") == 1 and told.count(b"WATCHDOG=1") >= 3


def test_completion_knows_the_sessions(start):
    agent = start({"name": "alpha", "local": "10.0.0.1", "peer": "10.0.0.2"},
                  {"name": "beta", "local": "10.0.0.1", "peer": "10.0.0.3"})
    words = [KELMCTL, "__complete", "agent", "down", "socket", agent.socket, "al"]
    result = subprocess.run(words, capture_output=True, text=True, timeout=PATIENCE)
    assert result.stdout.split() == ["alpha"]


def test_a_namespace_that_is_made_anew(namespaces, start):
    """Our connection does not keep the old one alive."""
    name = namespaces.add("kelm-e2e-anew")
    agent = start({"name": "s", "namespace": name, "local": "10.0.0.1", "peer": "10.0.0.2"})
    wait_until(lambda: agent.show()["discriminator"] in discriminators_or_none(name), "session")
    namespaces.delete(name)
    wait_until(lambda: agent.show().get("problem") == "not connected to kelm", "that problem")
    namespaces.add(name)
    wait_until(lambda: agent.show()["discriminator"] in discriminators_or_none(name),
               "session in the new namespace")
