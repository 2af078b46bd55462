"""examples/fleet.py: services that go away, processes that are killed, bad invites, Ctrl-C, and the run after that."""

import contextlib
import csv
import fcntl
import json
import os
import runpy
import signal
import subprocess
import sys
from pathlib import Path

import pytest

from corvane import auth
from corvane_local.store import Store
from localkit.tests.conftest import wait_until

EXAMPLES = Path(__file__).parents[2] / "examples"
COMMAND, NURSERY = ([sys.executable, "-P", EXAMPLES / name] for name in ("fleet.py", "fleet_nursery.py"))
AGENTS = int(os.environ.get("FLEET_AGENTS", "12"))
AT_ONCE = max(4, AGENTS // 12)
REFUSED = ("is unknow", "has been ", "required.")  # what follows "invite code", by kind of bad code


def fleet(agents, base, url, *options, **environment):
    agents_file = base.with_suffix(".txt")
    agents_file.write_text("".join(f"{name},{code}\n" for name, code in agents.items()))
    command = [*COMMAND, agents_file, base, "--server-url", url, "--at-once", str(AT_ONCE), *options]
    env = os.environ | environment
    return subprocess.Popen(command, stdout=-1, stderr=-1, text=True, env=env, start_new_session=True)


def outcomes(process, status):
    """The address or the error of each agent."""
    out, err = process.communicate()
    assert process.returncode == status, err
    return dict(line.split(maxsplit=1) for line in out.splitlines())


def holders(path):
    """The processes that have a file open whose path begins like this, without this one."""
    found = set()
    for descriptor in Path("/proc").glob("[0-9]*/fd/*"):
        with contextlib.suppress(OSError):
            if os.readlink(descriptor).startswith(str(path)):
                found.add(int(descriptor.parts[2]))
    return found - {os.getpid()}


def private_kilobytes(process):
    with contextlib.suppress(OSError):
        lines = Path(f"/proc/{process}/smaps_rollup").read_text().splitlines()
        return sum(int(line.split()[1]) for line in lines if line.startswith("Private_"))
    return 0


def kill_at_work(base, generation):
    """Kills a process at work, the one that forks, or Ray's: an agent's own, its parent or its grandparent."""
    while True:
        with contextlib.suppress(IndexError, OSError):
            victim = sorted(holders(base / ".locks/"))[0]
            for _ in range(generation):
                victim = int(Path(f"/proc/{victim}/stat").read_text().rpartition(")")[2].split()[1])
            return os.kill(victim, signal.SIGKILL)


@pytest.mark.fleet
def test_nothing_is_lost_and_no_wallet_made_twice(start, tmp_path):
    base, most, largest = tmp_path / "agents", 0, 0
    with contextlib.ExitStack() as stack:
        service = stack.enter_context(start())
        stores = Store(tmp_path / "elsewhere.db"), Store(service.state / "service.db")
        bad = {f"agent-{number}": number // 4 % 3 for number in range(1, AGENTS, 4)}
        for number, (name, kind) in enumerate(bad.items(), 1):
            bad[name] = f"junk-{number}" if kind == 2 else stores[kind].make_invite()
            if kind == 1:
                service.sign_in(number, bad[name])
        used = dict(service.rows("SELECT code, used_by FROM invites WHERE used_by IS NOT NULL"))
        good = {f"agent-{number}": service.invite() for number in range(AGENTS)}
        process = fleet(good | bad, base, service.url)
        for generation, wanted in enumerate(range(2, AGENTS // 2, max(1, AGENTS // 36))):
            while len(service.rows("SELECT * FROM wallets")) < len(used) + wanted:
                working = holders(base / ".locks/") - {process.pid}
                most, largest = max(most, len(working)), max([largest, *map(private_kilobytes, working)])
            service.process.kill()
            assert process.poll() is None, process.communicate()[1]
            kill_at_work(base, generation % 3)
            service = stack.enter_context(start("--port", service.url.rpartition(":")[2]))
        first = outcomes(process, 1)
        assert [first.pop(name).partition("nvite code ")[2][:9] for name in bad] == [*REFUSED * AGENTS][: len(bad)]
        two = [fleet(good, base, service.url) for _ in range(2)]
        second, other = (outcomes(process, 0) for process in two)
        service.process.kill()
        (tmp_path / "ray.py").write_text("raise RuntimeError('was imported')")  # nor is there a service to be missed
        assert outcomes(fleet(good, base, service.url, PYTHONPATH=str(tmp_path)), 0) == second == other
        assert len(second) == AGENTS and second | first == second
        for name, address in second.items():
            key = base / name / "wallet.key"
            assert key.stat().st_mode == 0o100600 and {key, key.with_name("session.json")} == {*(base / name).iterdir()}
            assert auth.AuthManager("0x" + key.read_text(), service.url).get_wallet_address() == address
        used |= {good[name]: address for name, address in second.items()}
        assert dict(service.rows("SELECT code, used_by FROM invites")) == used
        assert sorted(service.rows("SELECT address FROM wallets")) == sorted((address,) for address in used.values())
    assert 1 < most <= AT_ONCE and 1000 < largest < 15_000


@pytest.mark.fleet
@pytest.mark.parametrize(("send", "number"), [(os.killpg, signal.SIGINT), (os.kill, signal.SIGTERM)])
def test_an_interruption_ends_all_processes_and_says_what_is_done(send, number, service, tmp_path):
    base, agents = tmp_path / "agents", {f"a{number}": service.invite() for number in range(10 * AT_ONCE)}
    process = fleet(agents, base, service.url, "--json")
    wait_until(lambda: process.poll() or any(lock.stat().st_size for lock in base.glob(".locks/*")))
    send(process.pid, number)
    out, err = process.communicate()
    assert process.returncode == 130 and "Interrupted: " in err and not holders(base / ".locks/")
    done = {lock.name: lock.read_text().split()[1] for lock in base.glob(".locks/*") if lock.stat().st_size}
    table = {row["name"]: row["address"] for row in json.loads(out)}
    assert table == dict.fromkeys(agents) | done and 0 < len(done) < len(agents)
    out, err = fleet(agents, base, service.url, "--csv").communicate()
    table = {row["name"]: row["address"] for row in csv.DictReader(out.splitlines())}
    assert table.keys() == agents.keys() and all(table.values()) and table | done == table


def test_each_agent_has_its_own_process_and_its_own_end(service, tmp_path):
    agents = {name: service.invite() for name in ("good", "held", "killed")} | {"bad": "junk"}
    (base := tmp_path / "agents").mkdir()
    with contextlib.ExitStack() as held:
        for name in agents:
            lock = held.enter_context(open(tmp_path / name, "w"))
            if name in ("held", "killed"):
                fcntl.lockf(lock, fcntl.LOCK_EX)
        with subprocess.Popen(NURSERY, stdin=-1, stdout=-1, text=True) as nursery:
            job = {"agents": list(agents.items()), "base": str(base), "locks": "..", "server_url": service.url}
            job |= {"parent": os.getpid(), "certificates": os.environ["SSL_CERT_FILE"]}
            json.dump(job | {"at_once": 5, "time_limit": 3, "attempts": 1}, nursery.stdin)
            nursery.stdin.close()
            killed = set()
            while len(killed) < 4:
                assert nursery.poll() is None
                for process in holders(tmp_path / "killed") - killed:
                    os.kill(process, signal.SIGKILL)
                    killed.add(process)
            told = {name: (onboarded, text) for name, onboarded, text in map(json.loads, nursery.stdout)}
    address = service.rows("SELECT used_by FROM invites WHERE code = ?", agents["good"])[0][0]
    assert told.pop("good") == (True, address) and (tmp_path / "good").read_text() == f"{service.url} {address}\n"
    assert {name: text.partition(":")[0] for name, (_, text) in told.items()} == {
        "held": "TimeoutError", "killed": "ChildProcessError", "bad": "ValueError",
    }  # fmt: skip
    assert nursery.returncode == 0 and [*base.glob("*/wallet.key")] == [base / "good/wallet.key"]


def test_no_process_outlives_the_one_that_started_it(tmp_path):
    (tmp_path / ".locks").mkdir()
    job = {"agents": [("a", "CODE")], "base": str(tmp_path), "locks": ".locks", "server_url": URL, "at_once": 1}
    with open(tmp_path / ".locks/a", "w") as lock:
        fcntl.lockf(lock, fcntl.LOCK_EX)  # so that the agent's process waits
        with subprocess.Popen(["sh", "-c", '"$@"; :', "sh", *NURSERY], stdin=-1, text=True) as parent:
            json.dump(job | {"time_limit": 60, "certificates": None, "parent": parent.pid}, parent.stdin)
            parent.stdin.close()
            wait_until(lambda: parent.poll() or holders(tmp_path / ".locks/"))
            parent.kill()
        wait_until(lambda: not holders(tmp_path / ".locks/"))


URL = "https://127.0.0.1:1"
BAD = [
    (b"a,CORV-1\nb,corv-1", URL, "line 2: this invite code is also on line 1"),
    (b"a,x\na,y", URL, "line 2: an earlier line has an agent 'a'"),
    (b"../a,x", URL, "line 1: '../a' cannot be the name of a directory"),
    (b"# \xc3\xa4\n.locks,y", URL, "line 2: '.locks' cannot"),
    (b"a,x", "http://service.example", "must use https"),
]


@pytest.mark.parametrize(("text", "url", "reason"), BAD)
def test_bad_input_starts_nothing(text, url, reason, tmp_path):
    (tmp_path / "list").write_bytes(text)
    command = [*COMMAND, tmp_path / "list", tmp_path / "base", "--server-url", url]
    done = subprocess.run(command, capture_output=True, text=True)
    assert done.returncode == 2 and reason in " ".join(done.stderr.split()) and not (tmp_path / "base").exists()


FLEET = runpy.run_path(str(EXAMPLES / "fleet.py"))
NOTES = [("5a", URL, 1, True), ("", URL, 1, False), ("5a", "https://other.example", 1, False), ("5a", URL, -1, False)]


@pytest.mark.parametrize(("key_text", "url", "later", "believed"), NOTES)
def test_only_a_note_of_this_service_and_this_key_is_believed(key_text, url, later, believed, tmp_path):
    key, lock = tmp_path / "a/wallet.key", tmp_path / ".locks/a"
    for file, text in ((key, key_text), (lock, f"{url} 0xa\n")):
        file.parent.mkdir()
        file.write_text(text)
    os.utime(lock, (0, key.stat().st_ctime + later))
    assert list(FLEET["noted"]([FLEET["Agent"]("a", "CORV-1")], tmp_path, URL)) == ["a"] * believed
